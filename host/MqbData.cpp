// MqbData.cpp: the `mqb` subcommands on a device's data checks and latency
// figures: latency and journal.
#include <cmath>
#include <string>
#include <vector>

#include "DataControl.h"
#include "MqbSupport.h"

namespace mqbcmd {

namespace {

// Microseconds to one decimal place.
Tcl_Obj* usObj(double v) { return Tcl_NewDoubleObj(std::round(v * 10.0) / 10.0); }

}  // namespace

// mqb latency IDX ?on|off|-reset|-buckets?: the percentiles of each command
// kind, a new interval, the raw histogram, or recording on / off (returns
// whether it now records).
int cmdLatency(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    enum class Sub { On, Off, Reset, Buckets, Figures };
    static const Named<Sub> subs[] = {
        {"on", Sub::On}, {"off", Sub::Off}, {"-reset", Sub::Reset}, {"-buckets", Sub::Buckets}, {nullptr, Sub::Figures}};
    int idx;
    if (deviceArgs(interp, objc, objv, 3, 4, "IDX ?on|off|-reset|-buckets?", idx) != TCL_OK) return TCL_ERROR;
    Sub which = Sub::Figures;
    if (objc == 4 && lookup(interp, objv[3], subs, "latency option", which) != TCL_OK)
        return TCL_ERROR;
    switch (which) {
    case Sub::On:
    case Sub::Off: {
        mqb::latencyEnable(idx, which == Sub::On);
        Tcl_SetObjResult(interp, Tcl_NewBooleanObj(which == Sub::On));
        return TCL_OK;
    }
    case Sub::Reset:
        mqb::latencyReset(idx);
        Tcl_ResetResult(interp);
        return TCL_OK;
    case Sub::Buckets:
    case Sub::Figures:
        break;
    }
    Tcl_Obj* d = Tcl_NewDictObj();
    for (int k = 0; k < mqb::kLatencyKinds; ++k) {
        Tcl_Obj* v;
        if (which == Sub::Buckets) {
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
int cmdJournal(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    enum class Sub { Save, Load, Info };
    static const Named<Sub> subs[] = {
        {"save", Sub::Save}, {"load", Sub::Load}, {"info", Sub::Info}, {nullptr, Sub::Save}};
    int idx;
    Sub which;
    if (deviceSubcommand(interp, objc, objv, "IDX save|load FILE | IDX info", subs, "journal subcommand", idx, which)
        != TCL_OK)
        return TCL_ERROR;
    if (objc != (which == Sub::Info ? 4 : 5)) {
        Tcl_WrongNumArgs(interp, 4, objv, which == Sub::Info ? nullptr : "FILE");
        return TCL_ERROR;
    }
    std::string err;
    if (which == Sub::Info) {
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
    const bool ok = which == Sub::Save ? mqb::journalSave(idx, path, err) : mqb::journalLoad(idx, path, err);
    if (!ok)
        return fail(interp, std::string("cannot ") + nameOf(subs, which) + " the journal of device " +
                                std::to_string(idx) + ": " + err);
    Tcl_ResetResult(interp);
    return TCL_OK;
}

}  // namespace mqbcmd
