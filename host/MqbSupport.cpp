// MqbSupport.cpp: the Tcl result helpers and argument readers every group of
// `mqb` subcommands uses.
#include "MqbSupport.h"

#include <cstdio>

#include "DeviceTable.h"
#include "KivHost.h"
#include "MQBManager.h"

namespace mqbcmd {

int fail(Tcl_Interp* interp, const std::string& msg) {
    Tcl_SetObjResult(interp, Tcl_NewStringObj(msg.c_str(), (int)msg.size()));
    return TCL_ERROR;
}

// Values above the signed range (an open-ended LBA bound) go out as text so
// they read back unchanged.
Tcl_Obj* wideObj(uint64_t v) {
    if (v > uint64_t(INT64_MAX)) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%llu", (unsigned long long)v);
        return Tcl_NewStringObj(buf, -1);
    }
    return Tcl_NewWideIntObj(Tcl_WideInt(v));
}

void dictPut(Tcl_Interp* interp, Tcl_Obj* d, const char* key, Tcl_Obj* value) {
    Tcl_DictObjPut(interp, d, Tcl_NewStringObj(key, -1), value);
}

// Reads a device index and checks it names a device of the table. TCL_OK with
// `idx` set, or TCL_ERROR with "no such device N".
int getDevice(Tcl_Interp* interp, Tcl_Obj* obj, int& idx) {
    if (Tcl_GetIntFromObj(interp, obj, &idx) != TCL_OK) return TCL_ERROR;
    if (idx < 0 || idx >= mqb::deviceCount())
        return fail(interp, "no such device " + std::to_string(idx));
    return TCL_OK;
}

int deviceArgs(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], int minObjc, int maxObjc, const char* usage,
               int& idx) {
    if (objc < minObjc || objc > maxObjc) {
        Tcl_WrongNumArgs(interp, 2, objv, usage);
        return TCL_ERROR;
    }
    return getDevice(interp, objv[2], idx);
}

// Reads a non-negative wide integer no larger than `max`; `what` names it in
// the error message.
int getCount(Tcl_Interp* interp, Tcl_Obj* obj, const char* what, Tcl_WideInt max, Tcl_WideInt& out) {
    if (Tcl_GetWideIntFromObj(interp, obj, &out) != TCL_OK) return TCL_ERROR;
    if (out < 0 || out > max)
        return fail(interp, std::string("bad ") + what + " \"" + Tcl_GetString(obj) +
                                "\": must be 0 to " + std::to_string(max));
    return TCL_OK;
}

MQB* currentChannel(KivHost* host) { return host->manager().getCurrentMQB(); }

// A running test sends through the manager's channel (single-threaded) or
// cloned it from there: replacing, closing or redirecting that channel under
// it is refused. Returns TCL_OK when no test runs.
int refuseWhileRunning(KivHost* host, Tcl_Interp* interp) {
    return host->testRunning() ? fail(interp, "a kiv test is running") : TCL_OK;
}

int requireChannel(Tcl_Interp* interp, MQB* m) {
    return m ? TCL_OK : fail(interp, "no MQB loaded: use \"mqb open\" first");
}

}  // namespace mqbcmd
