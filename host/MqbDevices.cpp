// MqbDevices.cpp: the `mqb` subcommands on the process-wide device table:
// add, devices, info, lock, stats, trace and reset.
#include <cstdint>
#include <string>
#include <vector>

#include "DeviceTable.h"
#include "MqbSupport.h"

namespace mqbcmd {

int cmdAdd(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 3) { Tcl_WrongNumArgs(interp, 2, objv, "DEVICE-TEXT"); return TCL_ERROR; }
    std::string err;
    int idx = mqb::addDevice(Tcl_GetString(objv[2]), err);
    if (idx < 0)
        return fail(interp, std::string("cannot add device \"") + Tcl_GetString(objv[2]) + "\": " +
                                (err.empty() ? "bad device text" : err));
    Tcl_SetObjResult(interp, Tcl_NewIntObj(idx));
    return TCL_OK;
}

int cmdDevices(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
    for (int i = 0, n = mqb::deviceCount(); i < n; ++i)
        Tcl_ListObjAppendElement(interp, list, Tcl_NewIntObj(i));
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

int cmdInfo(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int idx;
    if (deviceArgs(interp, objc, objv, 3, 3, "IDX", idx) != TCL_OK) return TCL_ERROR;
    mqb::DeviceSummary s;
    if (!mqb::deviceSummary(idx, s)) return fail(interp, "no such device " + std::to_string(idx));
    Tcl_Obj* d = Tcl_NewDictObj();
    dictPut(interp, d, "spec", Tcl_NewStringObj(s.deviceText.c_str(), -1));
    dictPut(interp, d, "blocks", wideObj(s.blocks));
    dictPut(interp, d, "blocksize", Tcl_NewWideIntObj(s.blockSize));
    dictPut(interp, d, "locked", Tcl_NewBooleanObj(s.locked));
    dictPut(interp, d, "backend", Tcl_NewStringObj(s.backend.c_str(), -1));
    dictPut(interp, d, "direct", Tcl_NewIntObj(s.direct ? 1 : 0));
    dictPut(interp, d, "journal", Tcl_NewBooleanObj(s.journal));
    dictPut(interp, d, "queue", Tcl_NewStringObj(s.queue.c_str(), -1));
    dictPut(interp, d, "queue_error", Tcl_NewStringObj(s.queueError.c_str(), -1));
    Tcl_SetObjResult(interp, d);
    return TCL_OK;
}

int cmdLock(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int idx;
    if (deviceArgs(interp, objc, objv, 3, 4, "IDX ?BOOL?", idx) != TCL_OK) return TCL_ERROR;
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

int cmdStats(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int idx;
    if (deviceArgs(interp, objc, objv, 3, 3, "IDX", idx) != TCL_OK) return TCL_ERROR;
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

int cmdTrace(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    enum class Sub { Start, Stop, Get, Clear };
    static const Named<Sub> subs[] = {
        {"start", Sub::Start}, {"stop", Sub::Stop}, {"get", Sub::Get}, {"clear", Sub::Clear}, {nullptr, Sub::Get}};
    int idx;
    Sub which;
    if (deviceSubcommand(interp, objc, objv, "IDX start ?LIMIT?|stop|get|clear", subs, "trace subcommand", idx, which)
        != TCL_OK)
        return TCL_ERROR;
    if (objc > (which == Sub::Start ? 5 : 4)) {
        Tcl_WrongNumArgs(interp, 4, objv, which == Sub::Start ? "?LIMIT?" : nullptr);
        return TCL_ERROR;
    }
    Tcl_ResetResult(interp);
    switch (which) {
    case Sub::Start: {
        Tcl_WideInt limit = 0;
        if (objc == 5 && getCount(interp, objv[4], "trace limit", Tcl_WideInt(mqb::kMaxTraceLimit), limit) != TCL_OK)
            return TCL_ERROR;
        mqb::traceStart(idx, uint64_t(limit));
        return TCL_OK;
    }
    case Sub::Stop:
        mqb::traceStop(idx);
        return TCL_OK;
    case Sub::Clear:
        mqb::traceClear(idx);
        return TCL_OK;
    case Sub::Get:
        break;
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

int cmdReset(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int idx;
    if (deviceArgs(interp, objc, objv, 3, 3, "IDX", idx) != TCL_OK) return TCL_ERROR;
    mqb::reset(idx);
    Tcl_ResetResult(interp);
    return TCL_OK;
}

}  // namespace mqbcmd
