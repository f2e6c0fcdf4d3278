// MqbFaults.cpp: `mqb fault IDX add|clear|list`, the scripted fault rules of
// a device: the options of a rule and a rule read back as a dict.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "DeviceTable.h"
#include "MqbSupport.h"

namespace mqbcmd {

namespace {

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


// The names a script uses for a rule's command kind and fault kind, each
// beside the value it stands for: reordering an enum cannot change a name.
using Op = mqb::FaultRule::Op;
using Kind = mqb::FaultRule::Kind;
const Named<Op> kOps[] = {
    {"read", Op::Read}, {"write", Op::Write}, {"wrv", Op::Wrv}, {"verify", Op::Verify},
    {"any", Op::Any},   {nullptr, Op::Any},
};
// -status takes these or a negative status code (Kind::Status).
const Named<Kind> kKinds[] = {
    {"check", Kind::Check}, {"timeout", Kind::Timeout}, {"refuse", Kind::Refuse},
    {"delay", Kind::Delay}, {nullptr, Kind::Status},
};

// The options of `fault IDX add`.
enum class Opt { Op, Lba, Every, Count, Status, Sense, Uec, Info, SenseLen, Delay };
const Named<Opt> kOpts[] = {
    {"-op", Opt::Op},         {"-lba", Opt::Lba},     {"-every", Opt::Every}, {"-count", Opt::Count},
    {"-status", Opt::Status}, {"-sense", Opt::Sense}, {"-uec", Opt::Uec},     {"-info", Opt::Info},
    {"-senselen", Opt::SenseLen}, {"-delay", Opt::Delay}, {nullptr, Opt::Op},
};

// Reads the options of `fault IDX add` (from objv[4]) into `rule`.
int parseFaultRule(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], mqb::FaultRule& rule) {
    bool haveStatus = false, haveDelay = false;
    for (int i = 4; i < objc; i += 2) {
        Opt opt;
        if (lookup(interp, objv[i], kOpts, "option", opt) != TCL_OK) return TCL_ERROR;
        if (i + 1 >= objc)
            return fail(interp, std::string("missing value for ") + Tcl_GetString(objv[i]));
        Tcl_Obj* v = objv[i + 1];
        const char* text = Tcl_GetString(v);
        switch (opt) {
        case Opt::Op: {
            if (lookup(interp, v, kOps, "-op", rule.op) != TCL_OK) return TCL_ERROR;
            break;
        }
        case Opt::Lba:
            if (!parseLbaRange(text, rule.lbaLo, rule.lbaHi))
                return fail(interp, std::string("bad LBA range \"") + text + "\": must be LO:HI with LO <= HI");
            break;
        case Opt::Every: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-every", UINT32_MAX, n) != TCL_OK) return TCL_ERROR;
            if (n == 0) return fail(interp, "bad -every \"0\": must be at least 1");
            rule.every = uint32_t(n);
            break;
        }
        case Opt::Count: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-count", INT64_MAX, n) != TCL_OK) return TCL_ERROR;
            rule.count = uint64_t(n);
            break;
        }
        case Opt::Status: {
            if (lookup(nullptr, v, kKinds, "-status", rule.kind) != TCL_OK) {
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
        case Opt::Sense: {
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
        case Opt::Uec: {
            Tcl_WideInt n;
            if (getCount(interp, v, "-uec", 0xffff, n) != TCL_OK) return TCL_ERROR;
            rule.hasUec = true;
            rule.uec = uint16_t(n);
            break;
        }
        case Opt::Info: {
            int b;
            if (Tcl_GetBooleanFromObj(interp, v, &b) != TCL_OK) return TCL_ERROR;
            rule.info = b != 0;
            break;
        }
        case Opt::SenseLen: {
            int n;
            if (Tcl_GetIntFromObj(nullptr, v, &n) != TCL_OK || (n != 18 && n != 32))
                return fail(interp, std::string("bad -senselen \"") + text + "\": must be 18 or 32");
            rule.senseLen = uint8_t(n);
            break;
        }
        case Opt::Delay: {
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
    dictPut(interp, d, "op", Tcl_NewStringObj(nameOf(kOps, r.op), -1));
    std::snprintf(buf, sizeof buf, "%llu:%llu", (unsigned long long)r.lbaLo, (unsigned long long)r.lbaHi);
    dictPut(interp, d, "lba", Tcl_NewStringObj(buf, -1));
    dictPut(interp, d, "every", Tcl_NewWideIntObj(r.every));
    dictPut(interp, d, "count", wideObj(r.count));
    if (r.kind == mqb::FaultRule::Kind::Status)
        dictPut(interp, d, "status", Tcl_NewIntObj(r.status));
    else
        dictPut(interp, d, "status", Tcl_NewStringObj(nameOf(kKinds, r.kind), -1));
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

}  // namespace

int cmdFault(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    enum class Sub { Add, Clear, List };
    static const Named<Sub> subs[] = {{"add", Sub::Add}, {"clear", Sub::Clear}, {"list", Sub::List}, {nullptr, Sub::List}};
    int idx;
    Sub which;
    if (deviceSubcommand(interp, objc, objv, "IDX add|clear|list ?options?", subs, "fault subcommand", idx, which)
        != TCL_OK)
        return TCL_ERROR;
    if (which == Sub::Add) {
        mqb::FaultRule rule;
        if (parseFaultRule(interp, objc, objv, rule) != TCL_OK) return TCL_ERROR;
        std::string err;
        int id = mqb::addFault(idx, rule, err);
        if (id < 0) return fail(interp, "cannot add fault: " + (err.empty() ? std::string("rejected") : err));
        Tcl_SetObjResult(interp, Tcl_NewIntObj(id));
        return TCL_OK;
    }
    if (objc != 4) { Tcl_WrongNumArgs(interp, 4, objv, nullptr); return TCL_ERROR; }
    if (which == Sub::Clear) {
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

}  // namespace mqbcmd
