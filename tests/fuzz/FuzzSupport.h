// FuzzSupport.h: what the libFuzzer targets share: one Tcl interpreter with the
// stubs table filled for the extension's code, and a device manager whose
// current channel sits on a small simulated disk.
#pragma once
#include <tcl.h>

class MQBManager;

// Made on the first call and kept for the life of the fuzzing process.
Tcl_Interp* fuzzInterp();
MQBManager* fuzzManager();
