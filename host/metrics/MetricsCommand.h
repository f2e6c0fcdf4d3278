// MetricsCommand.h: `mqb metrics ?ADDR:PORT|off?`, the Tcl face of the
// metrics endpoint.
#pragma once
#include <tcl.h>

namespace kivmetrics {

// mqb metrics: the address served ("" when none). mqb metrics ADDR:PORT:
// serves there (127.0.0.1 when only a port is given, port 0 for a free one)
// and returns the address served. mqb metrics off: stops, returns "".
int cmdMetrics(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

}  // namespace kivmetrics
