// MqbSupport.h: what the groups of `mqb` subcommands share: the handler every
// subcommand is, the Tcl result helpers, the argument readers that give the
// command's usual messages, and each group's handlers for the dispatch table
// in MqbCommand.cpp.
#pragma once
#include <tcl.h>
#include <climits>
#include <cstdint>
#include <string>

class KivHost;
class MQB;

namespace mqbcmd {

// One subcommand: objv[1] is its name. Returns a Tcl code and sets the result.
using Handler = int (*)(KivHost* host, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

// Sets `msg` as the result and returns TCL_ERROR.
int fail(Tcl_Interp* interp, const std::string& msg);
// A wide integer object; values above the signed range go out as text.
Tcl_Obj* wideObj(uint64_t v);
void dictPut(Tcl_Interp* interp, Tcl_Obj* d, const char* key, Tcl_Obj* value);
// Reads a device index of the table: TCL_OK with `idx` set, or TCL_ERROR with
// "no such device N".
int getDevice(Tcl_Interp* interp, Tcl_Obj* obj, int& idx);
// Reads the device index of `mqb NAME IDX ...` from objv[2] once objc lies in
// [minObjc, maxObjc]: TCL_OK with `idx` set, else TCL_ERROR with Tcl's
// "wrong # args" message (ending in `usage`) or getDevice's.
int deviceArgs(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], int minObjc, int maxObjc, const char* usage,
               int& idx);
// Reads a wide integer 0..max; `what` names it in the error message.
int getCount(Tcl_Interp* interp, Tcl_Obj* obj, const char* what, Tcl_WideInt max, Tcl_WideInt& out);

// A name a script uses beside the value it stands for. Tables of these end
// in a null name; reordering an enum cannot change what a name means.
template <typename E>
struct Named {
    const char* name;
    E           value;
};

// The name of `value` in `table`; null when it has none.
template <typename E>
const char* nameOf(const Named<E>* table, E value) {
    for (; table->name; ++table)
        if (table->value == value) return table->name;
    return nullptr;
}

// Looks `obj` up in `table`, leaving Tcl's message for a bad value ("bad
// WHAT "x": must be ...") in `interp` when it is not null. TCL_OK with `out`
// set.
template <typename E>
int lookup(Tcl_Interp* interp, Tcl_Obj* obj, const Named<E>* table, const char* what, E& out) {
    int i;
    if (Tcl_GetIndexFromObjStruct(interp, obj, table, sizeof(Named<E>), what, 0, &i) != TCL_OK)
        return TCL_ERROR;
    out = table[i].value;
    return TCL_OK;
}

// Reads `mqb NAME IDX SUB ...`: the device index, then the subcommand looked
// up in `subs` (`what` names it in the message for a bad one). TCL_OK with
// `idx` and `which` set.
template <typename E>
int deviceSubcommand(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], const char* usage, const Named<E>* subs,
                     const char* what, int& idx, E& which) {
    if (deviceArgs(interp, objc, objv, 4, INT_MAX, usage, idx) != TCL_OK) return TCL_ERROR;
    return lookup(interp, objv[3], subs, what, which);
}

MQB* currentChannel(KivHost* host);
// TCL_ERROR "a kiv test is running" while a test runs, else TCL_OK.
int refuseWhileRunning(KivHost* host, Tcl_Interp* interp);
// TCL_ERROR when no channel is open, else TCL_OK.
int requireChannel(Tcl_Interp* interp, MQB* m);

// The device table (MqbDevices.cpp).
int cmdAdd(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdDevices(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdInfo(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdLock(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdStats(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdTrace(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdReset(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
// The manager's channel and its buffers (MqbChannel.cpp).
int cmdSelect(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdCurrent(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdDriver(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdOpen(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdClose(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdClone(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdBuffer(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdSendBuffer(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdRecvBuffer(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
// Fault rules (MqbFaults.cpp).
int cmdFault(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
// Latency figures and the write journal (MqbData.cpp).
int cmdLatency(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);
int cmdJournal(KivHost*, Tcl_Interp*, int, Tcl_Obj* const[]);

}  // namespace mqbcmd
