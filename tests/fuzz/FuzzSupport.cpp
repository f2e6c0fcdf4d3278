// FuzzSupport.cpp: the interpreter and manager the fuzz targets run against.
// As in the unit tests' main, the interpreter is made by the real Tcl library
// and the stubs table is then filled by the stubs library's initialiser.
#undef USE_TCL_STUBS
#include <tcl.h>
#undef Tcl_InitStubs
extern "C" const char* Tcl_InitStubs(Tcl_Interp* interp, const char* version, int exact);
#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "DeviceTable.h"
#include "MQB.h"
#include "MQBManager.h"

Tcl_Interp* fuzzInterp() {
    static Tcl_Interp* interp = [] {
        Tcl_FindExecutable(nullptr);
        Tcl_Interp* in = Tcl_CreateInterp();
        if (Tcl_InitStubs(in, "8.6", 0) == nullptr) {
            std::fprintf(stderr, "cannot initialise Tcl stubs\n");
            std::abort();
        }
        return in;
    }();
    return interp;
}

MQBManager* fuzzManager() {
    static MQBManager* manager = [] {
        std::string err;
        mqb::addDevice("sim:blocks=100000", err);
        mqb::addDevice("sim:blocks=1000,bs=4096", err);
        auto* m = new MQBManager();  // lives as long as the process
        auto channel = std::make_unique<MQB>("sim");
        channel->setDeviceIndex(0);
        m->setCurrentMQB(std::move(channel));
        return m;
    }();
    return manager;
}
