// MqbChannel.cpp: the `mqb` subcommands on the manager's channel and its user
// data buffers: select, current, driver, open, close, clone, buffer,
// sendbuffer and recvbuffer. Replacing, closing or redirecting the channel is
// refused while a kiv test runs.
#include <memory>
#include <string>

#include "DeviceTable.h"
#include "KivHost.h"
#include "MQB.h"
#include "MQBErr.h"
#include "MQBManager.h"
#include "MqbSupport.h"

namespace mqbcmd {

namespace {

// Largest user data buffer the command will allocate.
constexpr Tcl_WideInt kMaxBufferSize = Tcl_WideInt(1) << 30;

// The driver type of a channel: its info string up to the first ':'.
std::string driverOf(MQB* m) {
    char buf[256] = {};
    m->infoString(buf, sizeof buf);
    std::string s = buf;
    size_t colon = s.find(':');
    return colon == std::string::npos ? s : s.substr(0, colon);
}

// `sendbuffer ?N?` / `recvbuffer ?N?`: query or set the manager's index.
int bufferIndex(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], bool send) {
    if (objc > 3) { Tcl_WrongNumArgs(interp, 2, objv, "?N?"); return TCL_ERROR; }
    MQBManager& mgr = host->manager();
    if (objc == 3) {
        int n;
        if (Tcl_GetIntFromObj(interp, objv[2], &n) != TCL_OK) return TCL_ERROR;
        if (n < 0 || (unsigned)n >= mgr.getBufferCount())
            return fail(interp, "no such buffer " + std::to_string(n) + " (" +
                                    std::to_string(mgr.getBufferCount()) + " buffers)");
        if (send) mgr.setSendBufferIndex(n); else mgr.setRecvBufferIndex(n);
    }
    Tcl_SetObjResult(interp, Tcl_NewIntObj(send ? mgr.getSendBufferIndex() : mgr.getRecvBufferIndex()));
    return TCL_OK;
}

}  // namespace

int cmdSelect(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "IDX"); return TCL_ERROR; }
    if (refuseWhileRunning(host, interp) != TCL_OK) return TCL_ERROR;
    MQB* m = currentChannel(host);
    if (requireChannel(interp, m) != TCL_OK) return TCL_ERROR;
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    int rc = m->setDeviceIndex(idx);
    if (rc != 0)
        return fail(interp, "cannot select device " + std::to_string(idx) + ": " + MQBErr::errStr(rc));
    Tcl_SetObjResult(interp, Tcl_NewIntObj(idx));
    return TCL_OK;
}

int cmdCurrent(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    MQB* m = currentChannel(host);
    Tcl_SetObjResult(interp, Tcl_NewIntObj(m ? m->getCurrentDeviceIndex() : -1));
    return TCL_OK;
}

int cmdDriver(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc > 3) { Tcl_WrongNumArgs(interp, 2, objv, "?NAME?"); return TCL_ERROR; }
    MQB* m = currentChannel(host);
    if (requireChannel(interp, m) != TCL_OK) return TCL_ERROR;
    if (objc == 3) {
        if (refuseWhileRunning(host, interp) != TCL_OK) return TCL_ERROR;
        std::string name = Tcl_GetString(objv[2]);
        if (name.empty() || name.find(':') != std::string::npos)
            return fail(interp, "bad driver name \"" + name + "\"");
        m->setDriver(name);
    }
    std::string d = driverOf(m);
    Tcl_SetObjResult(interp, Tcl_NewStringObj(d.c_str(), (int)d.size()));
    return TCL_OK;
}

// Replaces the manager's channel with a new one of the given driver type,
// selecting device 0 so the extension finds a device at once.
int cmdOpen(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc > 3) { Tcl_WrongNumArgs(interp, 2, objv, "?DRIVER?"); return TCL_ERROR; }
    if (refuseWhileRunning(host, interp) != TCL_OK) return TCL_ERROR;
    std::string name = objc == 3 ? Tcl_GetString(objv[2]) : "sim";
    if (name.empty() || name.find(':') != std::string::npos)
        return fail(interp, "bad driver name \"" + name + "\"");
    auto channel = std::make_unique<MQB>(name);
    if (mqb::deviceCount() > 0) channel->setDeviceIndex(0);
    host->manager().setCurrentMQB(std::move(channel));
    Tcl_ResetResult(interp);
    return TCL_OK;
}

int cmdClose(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    if (refuseWhileRunning(host, interp) != TCL_OK) return TCL_ERROR;
    host->manager().setCurrentMQB(nullptr);
    Tcl_ResetResult(interp);
    return TCL_OK;
}

int cmdBuffer(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    enum class Sub { Add, Count };
    static const Named<Sub> subs[] = {{"add", Sub::Add}, {"count", Sub::Count}, {nullptr, Sub::Add}};
    if (objc < 3) { Tcl_WrongNumArgs(interp, 2, objv, "add SIZE ?-fill BYTE? | count"); return TCL_ERROR; }
    Sub which;
    if (lookup(interp, objv[2], subs, "buffer subcommand", which) != TCL_OK)
        return TCL_ERROR;
    MQBManager& mgr = host->manager();
    if (which == Sub::Count) {
        if (objc != 3) { Tcl_WrongNumArgs(interp, 3, objv, nullptr); return TCL_ERROR; }
        Tcl_SetObjResult(interp, Tcl_NewWideIntObj(mgr.getBufferCount()));
        return TCL_OK;
    }
    if (objc != 4 && objc != 6) { Tcl_WrongNumArgs(interp, 3, objv, "SIZE ?-fill BYTE?"); return TCL_ERROR; }
    Tcl_WideInt size;
    if (Tcl_GetWideIntFromObj(interp, objv[3], &size) != TCL_OK) return TCL_ERROR;
    if (size <= 0 || size > kMaxBufferSize)
        return fail(interp, std::string("bad buffer size \"") + Tcl_GetString(objv[3]) +
                                "\": must be 1 to " + std::to_string(kMaxBufferSize));
    int fill = 0;
    if (objc == 6) {
        if (std::string(Tcl_GetString(objv[4])) != "-fill")
            return fail(interp, std::string("bad option \"") + Tcl_GetString(objv[4]) + "\": must be -fill");
        if (Tcl_GetIntFromObj(interp, objv[5], &fill) != TCL_OK) return TCL_ERROR;
        if (fill < 0 || fill > 255)
            return fail(interp, std::string("bad fill byte \"") + Tcl_GetString(objv[5]) + "\": must be 0 to 255");
    }
    int idx = mgr.addBuffer((unsigned long)size, (unsigned char)fill);
    if (idx < 0) return fail(interp, std::string("cannot add buffer: ") + MQBErr::errStr(idx));
    Tcl_SetObjResult(interp, Tcl_NewIntObj(idx));
    return TCL_OK;
}

int cmdSendBuffer(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return bufferIndex(host, interp, objc, objv, true);
}

int cmdRecvBuffer(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return bufferIndex(host, interp, objc, objv, false);
}

int cmdClone(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc > 3) { Tcl_WrongNumArgs(interp, 2, objv, "?BOOL?"); return TCL_ERROR; }
    if (refuseWhileRunning(host, interp) != TCL_OK) return TCL_ERROR;
    MQB* m = currentChannel(host);
    if (requireChannel(interp, m) != TCL_OK) return TCL_ERROR;
    if (objc == 3) {
        int b;
        if (Tcl_GetBooleanFromObj(interp, objv[2], &b) != TCL_OK) return TCL_ERROR;
        m->setCloneAllowed(b != 0);
    }
    Tcl_SetObjResult(interp, Tcl_NewBooleanObj(m->cloneAllowed()));
    return TCL_OK;
}

}  // namespace mqbcmd
