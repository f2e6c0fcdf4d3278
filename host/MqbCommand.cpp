// MqbCommand.cpp: the `mqb` Tcl command.
#include "MqbCommand.h"
#include "KivHost.h"

int mqbObjCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
    Tcl_SetResult(interp, const_cast<char*>("mqb: not yet available"), TCL_STATIC);
    return TCL_ERROR;
}

int registerMqbCommand(Tcl_Interp* interp, KivHost* host) {
    Tcl_CreateObjCommand(interp, "mqb", mqbObjCmd, host, nullptr);
    return TCL_OK;
}
