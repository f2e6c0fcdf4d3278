// kivsh_main.cpp: the kiv shell, a tclsh with the kiv host built in.
#include <tcl.h>

static int appInit(Tcl_Interp* interp) {
    return Tcl_Init(interp);
}

int main(int argc, char** argv) {
    Tcl_Main(argc, argv, appInit);
    return 0;
}
