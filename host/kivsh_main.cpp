// kivsh_main.cpp: kivsh, a tclsh with the kiv host built in. `kivsh script.tcl
// ?arg ...?` runs a script as tclsh does; with no script it reads commands from
// standard input. Tk is loaded (its main window withdrawn) when a display is there.
// `kivsh --version` prints the version and exits. `kivsh --metrics ADDR:PORT ...`
// serves the Prometheus metrics endpoint there (`mqb metrics`) from the start.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tcl.h>
#include <unistd.h>

#include "KivHost.h"
#include "kiv_version.h"

namespace {

// The address of --metrics, or null.
const char* metricsAddress = nullptr;

// Serves the metrics endpoint when asked; a failure ends the shell (a lab
// asked for an endpoint it would otherwise silently lack).
void startMetrics(Tcl_Interp* interp) {
    if (!metricsAddress) return;
    Tcl_Obj* cmd = Tcl_NewStringObj("mqb metrics", -1);
    Tcl_IncrRefCount(cmd);
    Tcl_ListObjAppendElement(interp, cmd, Tcl_NewStringObj(metricsAddress, -1));
    const int rc = Tcl_EvalObjEx(interp, cmd, TCL_EVAL_GLOBAL);
    Tcl_DecrRefCount(cmd);
    if (rc != TCL_OK) {
        std::fprintf(stderr, "kivsh: %s\n", Tcl_GetStringResult(interp));
        std::exit(1);
    }
    Tcl_ResetResult(interp);
}

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
    startMetrics(interp);
    // The extension writes some lines with printf and most through puts; line
    // buffering on both keeps them in order when the output is a pipe.
    Tcl_Eval(interp, "fconfigure stdout -buffering line");
    Tcl_ResetResult(interp);
    Tcl_SetVar(interp, "tcl_rcFileName", "~/.kivshrc", TCL_GLOBAL_ONLY);
    return TCL_OK;
}

// Whether standard output is a terminal, decided before the handler is set.
volatile sig_atomic_t promptOnTerminal = 0;

// Ctrl-C at the interactive prompt: the terminal has already dropped the line
// being typed; start a fresh one with the prompt instead of ending the shell.
// Only write(2), which is safe in a signal handler; errno is left as found.
void onPromptInterrupt(int) {
    static const char fresh[] = "\n% ";
    if (promptOnTerminal) {
        int saved = errno;
        ssize_t n = write(STDOUT_FILENO, fresh, sizeof fresh - 1);
        (void)n;
        errno = saved;
    }
}

// With no script, kivsh reads commands: an interrupt there clears the line.
// A kiv test installs its own handlers for the run and restores this one.
void catchPromptInterrupts() {
    promptOnTerminal = isatty(STDOUT_FILENO) ? 1 : 0;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onPromptInterrupt;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("kivsh %s\n", KIV_VERSION);
        return 0;
    }
    if (argc >= 2 && std::strcmp(argv[1], "--metrics") == 0) {
        if (argc < 3) {
            std::fprintf(stderr, "usage: kivsh --metrics ADDR:PORT ?script.tcl arg ...?\n");
            return 1;
        }
        metricsAddress = argv[2];
        argv[2] = argv[0];
        argv += 2;
        argc -= 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2) catchPromptInterrupts();
    Tcl_Main(argc, argv, appInit);
    return 0;
}
