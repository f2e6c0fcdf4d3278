// MqbCommand.cpp: the `mqb` Tcl command. It adds and describes devices of the
// process-wide table, selects the current channel's device, opens and closes the
// manager's channel, manages the user data buffers, and drives the devices'
// fault rules, counters, command trace, latency figures and write journal.
// Every misuse is a Tcl error. The subcommands live by group in MqbDevices.cpp,
// MqbChannel.cpp, MqbFaults.cpp and MqbData.cpp; this file holds their table.
#include "MqbCommand.h"

#include <exception>
#include <string>

#include "MqbSupport.h"
#include "kiv_version.h"
#include "metrics/MetricsCommand.h"

namespace {

using namespace mqbcmd;

int cmdVersion(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) { Tcl_WrongNumArgs(interp, 2, objv, nullptr); return TCL_ERROR; }
    Tcl_SetObjResult(interp, Tcl_NewStringObj(KIV_VERSION, -1));
    return TCL_OK;
}

// `mqb metrics ...`: the Prometheus endpoint (metrics/MetricsCommand.cpp).
int cmdMetrics(KivHost*, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return kivmetrics::cmdMetrics(interp, objc, objv);
}

// The subcommands, by name, in the order the error message lists them.
struct Subcommand {
    const char* name;
    Handler     handler;
};
const Subcommand kSubcommands[] = {
    {"add", cmdAdd},         {"buffer", cmdBuffer},         {"clone", cmdClone},
    {"close", cmdClose},     {"current", cmdCurrent},       {"devices", cmdDevices},
    {"driver", cmdDriver},   {"fault", cmdFault},           {"info", cmdInfo},
    {"journal", cmdJournal}, {"latency", cmdLatency},       {"lock", cmdLock},
    {"metrics", cmdMetrics}, {"open", cmdOpen},             {"recvbuffer", cmdRecvBuffer},
    {"reset", cmdReset},     {"select", cmdSelect},         {"sendbuffer", cmdSendBuffer},
    {"stats", cmdStats},     {"trace", cmdTrace},           {"version", cmdVersion},
    {nullptr, nullptr},
};

// Dispatches one mqb subcommand (see mqbObjCmd).
int mqbDispatch(ClientData clientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    auto* host = static_cast<KivHost*>(clientData);
    if (objc < 2) { Tcl_WrongNumArgs(interp, 1, objv, "subcommand ?arg ...?"); return TCL_ERROR; }
    int which;
    if (Tcl_GetIndexFromObjStruct(interp, objv[1], kSubcommands, sizeof(Subcommand), "subcommand", 0,
                                  &which) != TCL_OK)
        return TCL_ERROR;
    return kSubcommands[which].handler(host, interp, objc, objv);
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
