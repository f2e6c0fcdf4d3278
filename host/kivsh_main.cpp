// kivsh_main.cpp: kivsh, a tclsh with the kiv host built in. `kivsh script.tcl
// ?arg ...?` runs a script as tclsh does; with no script it reads commands from
// standard input. Tk is loaded (its main window withdrawn) when a display is there.
// `kivsh --version` prints the version and exits.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tcl.h>

#include "KivHost.h"
#include "kiv_version.h"

namespace {

// Loads Tk when a display is set and KIV_NO_TK is not. A failure only means no
// Tk: the extension then reports on the terminal.
void loadTk(Tcl_Interp* interp) {
    const char* display = std::getenv("DISPLAY");
    const char* noTk = std::getenv("KIV_NO_TK");
    if (!display || !*display || (noTk && *noTk)) return;
    if (Tcl_Eval(interp, "if {[catch {package require Tk}] == 0} { wm withdraw . }") != TCL_OK) {
        Tcl_ResetResult(interp);
        return;
    }
    // Loading Tk installs its event loop as the shell's main loop, which would
    // keep the shell alive after the script ends; kivsh exits like tclsh does.
    Tcl_SetMainLoop(nullptr);
}

// Sets up a new interpreter: Tcl's library, Tk, the host, and line-buffered
// standard output. A host that cannot load the extension is reported but does
// not stop the shell (`mqb` still works).
int appInit(Tcl_Interp* interp) {
    if (Tcl_Init(interp) != TCL_OK) return TCL_ERROR;
    loadTk(interp);
    if (Kivhost_Init(interp) != TCL_OK) {
        std::fprintf(stderr, "kivsh: %s\n", Tcl_GetStringResult(interp));
        Tcl_ResetResult(interp);
    }
    // The extension writes some lines with printf and most through puts; line
    // buffering on both keeps them in order when the output is a pipe.
    Tcl_Eval(interp, "fconfigure stdout -buffering line");
    Tcl_ResetResult(interp);
    Tcl_SetVar(interp, "tcl_rcFileName", "~/.kivshrc", TCL_GLOBAL_ONLY);
    return TCL_OK;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("kivsh %s\n", KIV_VERSION);
        return 0;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Tcl_Main(argc, argv, appInit);
    return 0;
}
