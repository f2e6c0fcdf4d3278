// MqbCommand.h: the `mqb` Tcl command, the script-side controls of the device
// manager and of the process-wide device table (devices, faults, counters, trace).
#pragma once
#include <tcl.h>

class KivHost;

// Registers `mqb` in `interp`, working on `host`'s manager. Returns TCL_OK.
int registerMqbCommand(Tcl_Interp* interp, KivHost* host);

// The object command procedure; clientData is the KivHost.
int mqbObjCmd(ClientData clientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
