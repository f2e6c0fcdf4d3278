// KivCommand.h: the package entry and the kiv command procedure.
#pragma once
#include <tcl.h>

class MQBManager;

// The entry the host calls after loading the library: registers `kiv` with the
// manager as client data and sets the result "kiv command added". Returns 0.
// The one symbol the library exports (it is built with hidden visibility).
extern "C" __attribute__((visibility("default")))
int run(MQBManager* manager, void* unused, Tcl_Interp* interp);

// The kiv command procedure (string-based form of Tcl_CreateCommand).
int kiv(ClientData clientData, Tcl_Interp* interp, int argc, const char* argv[]);

// Lays out the command's long help in the interpreter result.
void printHelp(Tcl_Interp* interp);

// The help table: 25 (option, description) pairs and a closing null.
extern const char* kivHelpTable[51];
