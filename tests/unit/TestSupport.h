// TestSupport.h: what the unit tests share: one Tcl interpreter (with the stubs
// table initialised for the extension's code) and capture of its puts output.
#pragma once
#include <string>
#include <tcl.h>

// The interpreter made by the test main; Tk is not loaded in it.
Tcl_Interp* testInterp();

// Redirects the interpreter's `puts` (one- or two-argument, stdout) into a buffer
// until stopTclCapture(), which returns what was written.
void startTclCapture(Tcl_Interp* interp);
std::string stopTclCapture(Tcl_Interp* interp);
