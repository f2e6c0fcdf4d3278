// Parsers.h: the option-specific value parsers of the kiv command.
#pragma once
#include <tcl.h>

class MQBManager;

// -ops: converts into `ops` (whatever the result); returns getInt's flags.
int parseOpInfo(MQBManager* manager, const char* text, int& ops, Tcl_Interp* interp);
// -lba: "<h>" or "<l>:<h>", each part a number or "<n>%". Returns 0, getInt's
// flags, or 1 for a percent sign that is not the last character of its part.
int parseLBAInfo(const char* text, double& low, double& high, MQBManager* manager,
                 Tcl_Interp* interp);
// -translen: "<n>" fixes the length; "<l>:<h>" a range. Returns 0 or getInt's flags.
int parseTLInfo(const char* text, unsigned int& low, unsigned int& high,
                MQBManager* manager, Tcl_Interp* interp);
// -devices: space-separated indexes into `list` (room for 255). Returns the count,
// 0 on any failure with the reason in the interpreter result.
int getDevices(MQBManager* manager, Tcl_Interp* interp, const char* text, unsigned int* list);
