// MqbCommand.cpp: the `mqb` Tcl command. It adds and describes devices of the
// process-wide table, selects the current channel's device, opens and closes the
// manager's channel, manages the user data buffers, and drives the simulated
// disk's fault rules, counters and command trace. Every misuse is a Tcl error.
#include "MqbCommand.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "DataControl.h"
#include "DeviceTable.h"
#include "KivHost.h"
#include "MQB.h"
#include "MQBErr.h"
#include "MQBManager.h"
#include "kiv_version.h"
#include "metrics/MetricsCommand.h"

namespace {

// Largest user data buffer the command will allocate.
constexpr Tcl_WideInt kMaxBufferSize = Tcl_WideInt(1) << 30;

// Sets a formatted error result and returns TCL_ERROR.
int fail(Tcl_Interp* interp, const std::string& msg) {
    Tcl_SetObjResult(interp, Tcl_NewStringObj(msg.c_str(), (int)msg.size()));
    return TCL_ERROR;
}

Tcl_Obj* wideObj(uint64_t v) {
    // Values above the signed range (an open-ended LBA bound) go out as text so
    // they read back unchanged.
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

// Reads a non-negative wide integer no larger than `max`; `what` names it in
// the error message.
int getCount(Tcl_Interp* interp, Tcl_Obj* obj, const char* what, Tcl_WideInt max, Tcl_WideInt& out) {
    if (Tcl_GetWideIntFromObj(interp, obj, &out) != TCL_OK) return TCL_ERROR;
    if (out < 0 || out > max)
        return fail(interp, std::string("bad ") + what + " \"" + Tcl_GetString(obj) +
                                "\": must be 0 to " + std::to_string(max));
    return TCL_OK;
}

// Parses an unsigned decimal number that fills the whole of `s`.
bool parseU64(const std::string& s, uint64_t& out) {
    if (s.empty() || s[0] < '0' || s[0] > '9') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long v = std::strtoull(s.c_str(), &end, 10);
    if (errno == ERANGE || *end != '\0') return false;
    out = v;
    return true;
}

// Parses "LO:HI" (or a single LBA) into an inclusive range with LO <= HI.
bool parseLbaRange(const char* text, uint64_t& lo, uint64_t& hi) {
    std::string s = text;
    size_t colon = s.find(':');
    if (colon == std::string::npos) {
        if (!parseU64(s, lo)) return false;
        hi = lo;
        return true;
    }
    return parseU64(s.substr(0, colon), lo) && parseU64(s.substr(colon + 1), hi) && lo <= hi;
}

// Parses one hexadecimal sense byte ("03", "0x11", "ff").
bool parseHexByte(const char* text, uint8_t& out) {
    if (!*text) return false;
    errno = 0;
    char* end = nullptr;
    unsigned long v = std::strtoul(text, &end, 16);
    if (errno == ERANGE || *end != '\0' || v > 0xff || text[0] == '-' || text[0] == '+') return false;
    out = uint8_t(v);
    return true;
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

// The driver type of a channel: its info string up to the first ':'.
std::string driverOf(MQB* m) {
    char buf[256] = {};
    m->infoString(buf, sizeof buf);
    std::string s = buf;
    size_t colon = s.find(':');
    return colon == std::string::npos ? s : s.substr(0, colon);
}

// --- subcommands: each returns a Tcl code and sets the result ---

int cmdAdd(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "SPEC"); return TCL_ERROR; }
    std::string err;
    int idx = mqb::addDevice(Tcl_GetString(objv[2]), err);
    if (idx < 0)
        return fail(interp, std::string("cannot add device \"") + Tcl_GetString(objv[2]) + "\": " +
                                (err.empty() ? "bad device spec" : err));
    Tcl_SetObjResult(interp, Tcl_NewIntObj(idx));
    return TCL_OK;
}

int cmdDevices(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
    for (int i = 0, n = mqb::deviceCount(); i < n; ++i)
        Tcl_ListObjAppendElement(interp, list, Tcl_NewIntObj(i));
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

int cmdInfo(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "IDX"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    mqb::DeviceSummary s;
    if (!mqb::deviceSummary(idx, s)) return fail(interp, "no such device " + std::to_string(idx));
    Tcl_Obj* d = Tcl_NewDictObj();
    dictPut(interp, d, "spec", Tcl_NewStringObj(s.spec.c_str(), -1));
    dictPut(interp, d, "blocks", wideObj(s.blocks));
    dictPut(interp, d, "blocksize", Tcl_NewWideIntObj(s.blockSize));
    dictPut(interp, d, "locked", Tcl_NewBooleanObj(s.locked));
    dictPut(interp, d, "backend", Tcl_NewStringObj(s.backend.c_str(), -1));
    dictPut(interp, d, "direct", Tcl_NewIntObj(s.direct ? 1 : 0));
    dictPut(interp, d, "journal", Tcl_NewBooleanObj(s.journal));
    Tcl_SetObjResult(interp, d);
    return TCL_OK;
}

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

int cmdLock(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3 && objc != 4) { Tcl_WrongNumArgs(interp, 2, objv, "IDX ?BOOL?"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    if (objc == 4) {
        int b;
        if (Tcl_GetBooleanFromObj(interp, objv[3], &b) != TCL_OK) return TCL_ERROR;
        mqb::setLocked(idx, b != 0);
    }
    mqb::DeviceSummary s;
    mqb::deviceSummary(idx, s);
    Tcl_SetObjResult(interp, Tcl_NewBooleanObj(s.locked));
    return TCL_OK;
}

int cmdBuffer(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"add", "count", nullptr};
    if (objc < 3) { Tcl_WrongNumArgs(interp, 2, objv, "add SIZE ?-fill BYTE? | count"); return TCL_ERROR; }
    int which;
    if (Tcl_GetIndexFromObj(interp, objv[2], subs, "buffer subcommand", 0, &which) != TCL_OK)
        return TCL_ERROR;
    MQBManager& mgr = host->manager();
    if (which == 1) {
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

// `sendbuffer ?N?` / `recvbuffer ?N?`: query or set the manager's index.
int cmdBufferIndex(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], bool send) {
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

const char* const kOpNames[] = {"read", "write", "wrv", "verify", "any", nullptr};
const char* const kKindNames[] = {"check", "timeout", "refuse", "status", "delay"};

// Reads the options of `fault IDX add` (from objv[4]) into `rule`.
int parseFaultRule(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], mqb::FaultRule& rule) {
    static const char* const opts[] = {"-op", "-lba", "-every", "-count", "-status",
                                       "-sense", "-uec", "-info", "-senselen", "-delay", nullptr};
    enum { OP, LBA, EVERY, COUNT, STATUS, SENSE, UEC, INFO, SENSELEN, DELAY };
    bool haveStatus = false, haveDelay = false;
    for (int i = 4; i < objc; i += 2) {
        int opt;
        if (Tcl_GetIndexFromObj(interp, objv[i], opts, "option", 0, &opt) != TCL_OK) return TCL_ERROR;
        if (i + 1 >= objc)
            return fail(interp, std::string("missing value for ") + Tcl_GetString(objv[i]));
        Tcl_Obj* v = objv[i + 1];
        const char* text = Tcl_GetString(v);
        switch (opt) {
        case OP: {
            int op;
            if (Tcl_GetIndexFromObj(interp, v, kOpNames, "-op", 0, &op) != TCL_OK) return TCL_ERROR;
            rule.op = mqb::FaultRule::Op(op);
            break;
        }
        case LBA:
            if (!parseLbaRange(text, rule.lbaLo, rule.lbaHi))
                return fail(interp, std::string("bad LBA range \"") + text + "\": must be LO:HI with LO <= HI");
            break;
        case EVERY: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-every", UINT32_MAX, n) != TCL_OK) return TCL_ERROR;
            if (n == 0) return fail(interp, "bad -every \"0\": must be at least 1");
            rule.every = uint32_t(n);
            break;
        }
        case COUNT: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-count", INT64_MAX, n) != TCL_OK) return TCL_ERROR;
            rule.count = uint64_t(n);
            break;
        }
        case STATUS: {
            static const char* const kinds[] = {"check", "timeout", "refuse", "delay", nullptr};
            int k;
            if (Tcl_GetIndexFromObj(nullptr, v, kinds, "-status", 0, &k) == TCL_OK) {
                rule.kind = k == 3 ? mqb::FaultRule::Kind::Delay : mqb::FaultRule::Kind(k);
            } else {
                int code;
                if (Tcl_GetIntFromObj(nullptr, v, &code) != TCL_OK || code >= 0)
                    return fail(interp, std::string("bad -status \"") + text +
                                            "\": must be check, timeout, refuse, delay or a negative status code");
                rule.kind = mqb::FaultRule::Kind::Status;
                rule.status = code;
            }
            haveStatus = true;
            break;
        }
        case SENSE: {
            int n;
            Tcl_Obj** elems;
            uint8_t b[3];
            if (Tcl_ListObjGetElements(nullptr, v, &n, &elems) != TCL_OK || n != 3 ||
                !parseHexByte(Tcl_GetString(elems[0]), b[0]) ||
                !parseHexByte(Tcl_GetString(elems[1]), b[1]) ||
                !parseHexByte(Tcl_GetString(elems[2]), b[2]))
                return fail(interp, std::string("bad -sense \"") + text +
                                        "\": must be three hexadecimal bytes {KEY ASC ASCQ}");
            if (b[0] > 0x0f)
                return fail(interp, std::string("bad -sense \"") + text + "\": sense key must be 0 to f");
            rule.key = b[0]; rule.asc = b[1]; rule.ascq = b[2];
            break;
        }
        case UEC: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-uec", 0xffff, n) != TCL_OK) return TCL_ERROR;
            rule.hasUec = true;
            rule.uec = uint16_t(n);
            break;
        }
        case INFO: {
            int b;
            if (Tcl_GetBooleanFromObj(interp, v, &b) != TCL_OK) return TCL_ERROR;
            rule.info = b != 0;
            break;
        }
        case SENSELEN: {
            int n;
            if (Tcl_GetIntFromObj(nullptr, v, &n) != TCL_OK || (n != 18 && n != 32))
                return fail(interp, std::string("bad -senselen \"") + text + "\": must be 18 or 32");
            rule.senseLen = uint8_t(n);
            break;
        }
        case DELAY: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-delay", 100000000, n) != TCL_OK) return TCL_ERROR;
            rule.delayUs = uint32_t(n);
            haveDelay = true;
            break;
        }
        }
    }
    if (haveDelay != (haveStatus && rule.kind == mqb::FaultRule::Kind::Delay))
        return fail(interp, "-status delay and -delay US go together");
    if (!haveStatus) return fail(interp, "missing -status: must be check, timeout, refuse, delay or CODE");
    return TCL_OK;
}

// One rule as a dict a script can read back.
Tcl_Obj* describeRule(Tcl_Interp* interp, const mqb::FaultRule& r) {
    Tcl_Obj* d = Tcl_NewDictObj();
    char buf[64];
    dictPut(interp, d, "id", Tcl_NewIntObj(r.id));
    dictPut(interp, d, "op", Tcl_NewStringObj(kOpNames[int(r.op)], -1));
    std::snprintf(buf, sizeof buf, "%llu:%llu", (unsigned long long)r.lbaLo, (unsigned long long)r.lbaHi);
    dictPut(interp, d, "lba", Tcl_NewStringObj(buf, -1));
    dictPut(interp, d, "every", Tcl_NewWideIntObj(r.every));
    dictPut(interp, d, "count", wideObj(r.count));
    if (r.kind == mqb::FaultRule::Kind::Status)
        dictPut(interp, d, "status", Tcl_NewIntObj(r.status));
    else
        dictPut(interp, d, "status", Tcl_NewStringObj(kKindNames[int(r.kind)], -1));
    if (r.kind == mqb::FaultRule::Kind::Delay) dictPut(interp, d, "delay", Tcl_NewWideIntObj(r.delayUs));
    std::snprintf(buf, sizeof buf, "%02x %02x %02x", r.key, r.asc, r.ascq);
    dictPut(interp, d, "sense", Tcl_NewStringObj(buf, -1));
    if (r.hasUec) {
        std::snprintf(buf, sizeof buf, "0x%04x", r.uec);
        dictPut(interp, d, "uec", Tcl_NewStringObj(buf, -1));
    } else {
        dictPut(interp, d, "uec", Tcl_NewStringObj("", 0));
    }
    dictPut(interp, d, "info", Tcl_NewBooleanObj(r.info));
    dictPut(interp, d, "senselen", Tcl_NewIntObj(r.senseLen));
    dictPut(interp, d, "matches", wideObj(r.matches));
    dictPut(interp, d, "fired", wideObj(r.fired));
    return d;
}

int cmdFault(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"add", "clear", "list", nullptr};
    if (objc < 4) { Tcl_WrongNumArgs(interp, 2, objv, "IDX add|clear|list ?options?"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    int which;
    if (Tcl_GetIndexFromObj(interp, objv[3], subs, "fault subcommand", 0, &which) != TCL_OK)
        return TCL_ERROR;
    if (which == 0) {
        mqb::FaultRule rule;
        if (parseFaultRule(interp, objc, objv, rule) != TCL_OK) return TCL_ERROR;
        std::string err;
        int id = mqb::addFault(idx, rule, err);
        if (id < 0) return fail(interp, "cannot add fault: " + (err.empty() ? std::string("rejected") : err));
        Tcl_SetObjResult(interp, Tcl_NewIntObj(id));
        return TCL_OK;
    }
    if (objc != 4) { Tcl_WrongNumArgs(interp, 4, objv, nullptr); return TCL_ERROR; }
    if (which == 1) {
        mqb::clearFaults(idx);
        Tcl_ResetResult(interp);
        return TCL_OK;
    }
    std::vector<mqb::FaultRule> rules;
    mqb::listFaults(idx, rules);
    Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
    for (const auto& r : rules) Tcl_ListObjAppendElement(interp, list, describeRule(interp, r));
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

int cmdStats(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "IDX"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    mqb::DeviceStats s;
    if (!mqb::stats(idx, s)) return fail(interp, "no such device " + std::to_string(idx));
    Tcl_Obj* d = Tcl_NewDictObj();
    dictPut(interp, d, "commands", wideObj(s.commands));
    dictPut(interp, d, "reads", wideObj(s.reads));
    dictPut(interp, d, "writes", wideObj(s.writes));
    dictPut(interp, d, "wrvs", wideObj(s.wrvs));
    dictPut(interp, d, "verifies", wideObj(s.verifies));
    dictPut(interp, d, "other", wideObj(s.other));
    dictPut(interp, d, "blocks_read", wideObj(s.blocksRead));
    dictPut(interp, d, "blocks_written", wideObj(s.blocksWritten));
    dictPut(interp, d, "errors", wideObj(s.errors));
    dictPut(interp, d, "max_outstanding", wideObj(s.maxOutstanding));
    dictPut(interp, d, "queueing", Tcl_NewBooleanObj(s.queueing));
    dictPut(interp, d, "max_queue_depth", Tcl_NewIntObj(s.maxQueueDepth));
    dictPut(interp, d, "fast_reads", Tcl_NewBooleanObj(s.fastReads));
    dictPut(interp, d, "data_mode", Tcl_NewIntObj(s.dataMode));
    dictPut(interp, d, "miscompares", wideObj(s.miscompares));
    dictPut(interp, d, "miscompare_stale", wideObj(s.staleBlocks));
    dictPut(interp, d, "miscompare_wrong_lba", wideObj(s.wrongLbaBlocks));
    dictPut(interp, d, "miscompare_torn", wideObj(s.tornBlocks));
    dictPut(interp, d, "miscompare_unstamped", wideObj(s.unstampedBlocks));
    Tcl_SetObjResult(interp, d);
    return TCL_OK;
}

int cmdTrace(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"start", "stop", "get", "clear", nullptr};
    enum { START, STOP, GET, CLEAR };
    if (objc < 4) { Tcl_WrongNumArgs(interp, 2, objv, "IDX start ?LIMIT?|stop|get|clear"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    int which;
    if (Tcl_GetIndexFromObj(interp, objv[3], subs, "trace subcommand", 0, &which) != TCL_OK)
        return TCL_ERROR;
    if (objc > (which == START ? 5 : 4)) {
        Tcl_WrongNumArgs(interp, 4, objv, which == START ? "?LIMIT?" : nullptr);
        return TCL_ERROR;
    }
    Tcl_ResetResult(interp);
    switch (which) {
    case START: {
        Tcl_WideInt limit = 0;
        if (objc == 5 && getCount(interp, objv[4], "trace limit", Tcl_WideInt(mqb::kMaxTraceLimit), limit) != TCL_OK)
            return TCL_ERROR;
        mqb::traceStart(idx, uint64_t(limit));
        return TCL_OK;
    }
    case STOP:
        mqb::traceStop(idx);
        return TCL_OK;
    case CLEAR:
        mqb::traceClear(idx);
        return TCL_OK;
    }
    std::vector<mqb::TraceEntry> entries;
    mqb::traceGet(idx, entries);
    Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
    for (const auto& e : entries) {
        Tcl_Obj* row[4] = {Tcl_NewIntObj(e.opcode), wideObj(e.lba), Tcl_NewWideIntObj(e.tl),
                           Tcl_NewWideIntObj(e.tag)};
        Tcl_ListObjAppendElement(interp, list, Tcl_NewListObj(4, row));
    }
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

int cmdReset(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "IDX"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    mqb::reset(idx);
    Tcl_ResetResult(interp);
    return TCL_OK;
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

// --- latency figures and the write journal ---

// Microseconds to one decimal place.
Tcl_Obj* usObj(double v) { return Tcl_NewDoubleObj(std::round(v * 10.0) / 10.0); }

// mqb latency IDX ?on|off|-reset|-buckets?: the percentiles of each command
// kind, a new interval, the raw histogram, or recording on / off (returns
// whether it now records).
int cmdLatency(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"on", "off", "-reset", "-buckets", nullptr};
    enum { ON, OFF, RESET, BUCKETS, FIGURES };
    if (objc != 3 && objc != 4) { Tcl_WrongNumArgs(interp, 2, objv, "IDX ?on|off|-reset|-buckets?"); return TCL_ERROR; }
    int idx;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    int which = FIGURES;
    if (objc == 4 && Tcl_GetIndexFromObj(interp, objv[3], subs, "latency option", 0, &which) != TCL_OK)
        return TCL_ERROR;
    switch (which) {
    case ON:
    case OFF: {
        mqb::latencyEnable(idx, which == ON);
        Tcl_SetObjResult(interp, Tcl_NewBooleanObj(which == ON));
        return TCL_OK;
    }
    case RESET:
        mqb::latencyReset(idx);
        Tcl_ResetResult(interp);
        return TCL_OK;
    }
    Tcl_Obj* d = Tcl_NewDictObj();
    for (int k = 0; k < mqb::kLatencyKinds; ++k) {
        Tcl_Obj* v;
        if (which == BUCKETS) {
            std::vector<mqb::LatencyBucket> bs;
            mqb::latencyBuckets(idx, k, bs);
            v = Tcl_NewListObj(0, nullptr);
            for (const auto& b : bs) {
                Tcl_Obj* pair[2] = {Tcl_NewDoubleObj(b.lowUs), wideObj(b.count)};
                Tcl_ListObjAppendElement(interp, v, Tcl_NewListObj(2, pair));
            }
        } else {
            mqb::LatencyFigures f;
            mqb::latencyFigures(idx, k, f);
            v = Tcl_NewDictObj();
            dictPut(interp, v, "count", wideObj(f.count));
            dictPut(interp, v, "min_us", usObj(f.min));
            dictPut(interp, v, "mean_us", usObj(f.mean));
            dictPut(interp, v, "p50_us", usObj(f.p50));
            dictPut(interp, v, "p90_us", usObj(f.p90));
            dictPut(interp, v, "p99_us", usObj(f.p99));
            dictPut(interp, v, "p99.9_us", usObj(f.p999));
            dictPut(interp, v, "p99.99_us", usObj(f.p9999));
            dictPut(interp, v, "max_us", usObj(f.max));
        }
        dictPut(interp, d, mqb::kLatencyKindNames[k], v);
    }
    Tcl_SetObjResult(interp, d);
    return TCL_OK;
}

// mqb journal IDX save|load FILE, mqb journal IDX info: the device's
// lost-write journal to or from a file, or what it knows.
int cmdJournal(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"save", "load", "info", nullptr};
    enum { SAVE, LOAD, INFO };
    if (objc < 4) { Tcl_WrongNumArgs(interp, 2, objv, "IDX save|load FILE | IDX info"); return TCL_ERROR; }
    int idx, which;
    if (getDevice(interp, objv[2], idx) != TCL_OK) return TCL_ERROR;
    if (Tcl_GetIndexFromObj(interp, objv[3], subs, "journal subcommand", 0, &which) != TCL_OK)
        return TCL_ERROR;
    if (objc != (which == INFO ? 4 : 5)) {
        Tcl_WrongNumArgs(interp, 4, objv, which == INFO ? nullptr : "FILE");
        return TCL_ERROR;
    }
    std::string err;
    if (which == INFO) {
        mqb::JournalInfo ji;
        if (!mqb::journalInfo(idx, ji, err))
            return fail(interp, "no journal for device " + std::to_string(idx) + ": " + err);
        Tcl_Obj* d = Tcl_NewDictObj();
        dictPut(interp, d, "known", wideObj(ji.known));
        dictPut(interp, d, "ambiguous", wideObj(ji.ambiguous));
        dictPut(interp, d, "in_doubt", wideObj(ji.inDoubt));
        dictPut(interp, d, "unknown", wideObj(ji.unknown));
        dictPut(interp, d, "memory", wideObj(ji.residentBytes));
        dictPut(interp, d, "file", Tcl_NewStringObj(ji.file.c_str(), -1));
        Tcl_SetObjResult(interp, d);
        return TCL_OK;
    }
    const std::string path = Tcl_GetString(objv[4]);
    const bool ok = which == SAVE ? mqb::journalSave(idx, path, err) : mqb::journalLoad(idx, path, err);
    if (!ok)
        return fail(interp, std::string("cannot ") + subs[which] + " the journal of device " +
                                std::to_string(idx) + ": " + err);
    Tcl_ResetResult(interp);
    return TCL_OK;
}

int cmdVersion(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    Tcl_SetObjResult(interp, Tcl_NewStringObj(KIV_VERSION, -1));
    return TCL_OK;
}

}  // namespace

namespace {

// Dispatches one mqb subcommand (see mqbObjCmd).
int mqbDispatch(ClientData clientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const char* const subs[] = {"add", "buffer", "clone", "close", "current", "devices",
                                       "driver", "fault", "info", "journal", "latency", "lock",
                                       "metrics", "open", "recvbuffer", "reset", "select", "sendbuffer",
                                       "stats", "trace", "version", nullptr};
    enum { ADD, BUFFER, CLONE, CLOSE, CURRENT, DEVICES, DRIVER, FAULT, INFO, JOURNAL, LATENCY,
           LOCK, METRICS, OPEN, RECVBUFFER, RESET, SELECT, SENDBUFFER, STATS, TRACE, VERSION };
    auto* host = static_cast<KivHost*>(clientData);
    if (objc < 2) { Tcl_WrongNumArgs(interp, 1, objv, "subcommand ?arg ...?"); return TCL_ERROR; }
    int which;
    if (Tcl_GetIndexFromObj(interp, objv[1], subs, "subcommand", 0, &which) != TCL_OK)
        return TCL_ERROR;
    switch (which) {
    case ADD:        return cmdAdd(interp, objc, objv);
    case BUFFER:     return cmdBuffer(host, interp, objc, objv);
    case CLONE:      return cmdClone(host, interp, objc, objv);
    case CLOSE:      return cmdClose(host, interp, objc, objv);
    case CURRENT:    return cmdCurrent(host, interp, objc, objv);
    case DEVICES:    return cmdDevices(interp, objc, objv);
    case DRIVER:     return cmdDriver(host, interp, objc, objv);
    case FAULT:      return cmdFault(interp, objc, objv);
    case INFO:       return cmdInfo(interp, objc, objv);
    case JOURNAL:    return cmdJournal(interp, objc, objv);
    case LATENCY:    return cmdLatency(interp, objc, objv);
    case LOCK:       return cmdLock(interp, objc, objv);
    case METRICS:    return kivmetrics::cmdMetrics(interp, objc, objv);
    case OPEN:       return cmdOpen(host, interp, objc, objv);
    case RECVBUFFER: return cmdBufferIndex(host, interp, objc, objv, false);
    case RESET:      return cmdReset(interp, objc, objv);
    case SELECT:     return cmdSelect(host, interp, objc, objv);
    case SENDBUFFER: return cmdBufferIndex(host, interp, objc, objv, true);
    case STATS:      return cmdStats(interp, objc, objv);
    case TRACE:      return cmdTrace(interp, objc, objv);
    case VERSION:    return cmdVersion(interp, objc, objv);
    }
    return TCL_ERROR;
}

}  // namespace

// The mqb command. No C++ exception (a failed allocation, a library error)
// leaves it: each becomes a Tcl error naming the subcommand.
int mqbObjCmd(ClientData clientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    try {
        return mqbDispatch(clientData, interp, objc, objv);
    } catch (const std::exception& e) {
        return fail(interp, std::string("mqb: internal error: ") + e.what());
    } catch (...) {
        return fail(interp, "mqb: internal error");
    }
}

int registerMqbCommand(Tcl_Interp* interp, KivHost* host) {
    Tcl_CreateObjCommand(interp, "mqb", mqbObjCmd, host, nullptr);
    return TCL_OK;
}
