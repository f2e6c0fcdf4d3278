// MetricsCommand.cpp: `mqb metrics`.
#include "MetricsCommand.h"

#include <cstring>
#include <string>

#include "MetricsServer.h"

namespace kivmetrics {

int cmdMetrics(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc > 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "?ADDR:PORT|off?");
        return TCL_ERROR;
    }
    std::string result;
    if (objc == 2) {
        result = address();
    } else if (std::strcmp(Tcl_GetString(objv[2]), "off") == 0) {
        stop();
    } else {
        std::string err;
        if (!start(Tcl_GetString(objv[2]), result, err)) {
            Tcl_SetObjResult(interp, Tcl_NewStringObj(err.c_str(), -1));
            return TCL_ERROR;
        }
    }
    Tcl_SetObjResult(interp, Tcl_NewStringObj(result.c_str(), -1));
    return TCL_OK;
}

}  // namespace kivmetrics
