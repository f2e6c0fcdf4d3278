// KIVControl_window.cpp: the Tk status window `.kivstat` of a run: building it
// (setupWindow), keeping its error table current (updateErrWindow, addErrWidget)
// and colouring its device rows when the run is over (finalizeWindow).
// The window exists only through Tcl/Tk scripts evaluated in the interpreter's
// thread; when Tk is not loaded or there is no display, the run falls back to
// terminal statistics.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Hashtable.h"
#include "KIVControl.h"
#include "KIVControl_window.h"
#include "KIVLoop.h"

namespace {

const char* const kInner = ".kivstat.frame.cframe.canvas.frame";

// The integer value of the interpreter's result after a Tk query. A failed
// query leaves an error message there, which converts to 0.
int resultInt(Tcl_Interp* interp) {
    return (int)strtol(Tcl_GetStringResult(interp), nullptr, 10);
}

}  // namespace

KIVWindowSize kivWindowStartSize(int reqW, int reqH) {
    KIVWindowSize s;
    s.width = reqW + 25;
    if (s.width > 800) s.width = 800;
    if (s.width < 500) s.width = 500;
    s.height = reqH + 75;
    if (s.height > 600) s.height = 600;
    if (s.height < 150) s.height = 150;
    return s;
}

KIVWindowSize kivWindowGrowSize(int reqW, int reqH, int screenW, int screenH,
                                int rootX, int rootY) {
    KIVWindowSize s;
    s.width = reqW + 25;
    int roomW = screenW - 50 - rootX;
    if (roomW < s.width) s.width = roomW;
    if (s.width < 500) s.width = 500;
    s.height = reqH + 75;
    int roomH = screenH - 50 - rootY;
    if (roomH < s.height) s.height = roomH;
    if (s.height < 150) s.height = 150;
    return s;
}

// Builds `.kivstat` for a run in window mode: button bar, scrollable canvas, the
// statistics header and one blank row per device, then sizes the window to its
// contents. Destroying a window left from an earlier run fires its <Destroy>
// binding, which clears kiv_run; run() sets it again after this returns. When
// the toplevel cannot be made (no Tk, no display), prints a notice and switches
// statMode to 1 so the run reports on the terminal. Does nothing in other modes.
void KIVControl::setupWindow() {
    static char buff[512];
    static char reqW[64];
    static char reqH[64];

    if (statMode != 2) return;

    Tcl_Eval(interp, "destroy .kivstat");
    if (Tcl_Eval(interp, "toplevel .kivstat") != TCL_OK) {
        print("KIV: <I> Could not create Tk window, falling back to terminal display");
        statMode = 1;
        return;
    }

    tclEval(interp, "frame .kivstat.bframe");
    tclEval(interp, "pack .kivstat.bframe -fill both");
    tclEval(interp, "button .kivstat.bframe.haltb -text \"Halt Tests And Close Window\" "
                    "-command { set kiv_run 0; destroy .kivstat }");
    tclEval(interp, "pack .kivstat.bframe.haltb -padx 5 -pady 5");
    tclEval(interp, "bind .kivstat <Destroy> { set kiv_run 0; destroy .kivstat }");
    tclEval(interp, "frame .kivstat.frame -relief solid -bd 2 ");
    tclEval(interp, "scrollbar .kivstat.frame.xscroll -orient horizontal "
                    "-command {eval .kivstat.frame.cframe.canvas xview}");
    tclEval(interp, "scrollbar .kivstat.frame.yscroll "
                    "-command {eval .kivstat.frame.cframe.canvas yview}");
    tclEval(interp, "frame .kivstat.frame.cframe");
    tclEval(interp, "canvas .kivstat.frame.cframe.canvas "
                    "-xscrollcommand \".kivstat.frame.xscroll set\"  "
                    "-yscrollcommand \".kivstat.frame.yscroll set\"");
    tclEval(interp, "frame .kivstat.frame.cframe.canvas.frame");
    tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame -fill both -expand 1");
    tclEval(interp, ".kivstat.frame.cframe.canvas create window 0 0 -anchor nw "
                    "-window .kivstat.frame.cframe.canvas.frame");
    tclEval(interp, "pack .kivstat.frame.xscroll -side bottom -fill x");
    tclEval(interp, "pack .kivstat.frame.yscroll -side right -fill y");
    tclEval(interp, "pack .kivstat.frame -fill both -expand 1");
    tclEval(interp, "pack .kivstat.frame.cframe -expand 1 -fill both");
    tclEval(interp, "pack .kivstat.frame.cframe.canvas -expand 1 -fill both");

    snprintf(buff, sizeof(buff),
             "label %s.h1 -font {Courier 12} -text \"%4s %5s %4s %9s %9s %4s %4s %8s %6s %7s\"",
             kInner, "Indx", "Test", "Cmd", "Ops", "Last Lba", "TL", "Secs", "Ops/Sec",
             "mb/s", "errcnt");
    tclEval(interp, buff);
    tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame.h1");
    tclEval(interp, "label .kivstat.frame.cframe.canvas.frame.h2 -font {Courier 12} "
                    "-text \"---------------------------------------------------------------------\"");
    tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame.h2");

    // Each device row starts as its position and blanks, wide enough for a full
    // statistics line, so the first size estimate already fits the rows.
    for (int i = 0; i < numDevices; i++) {
        snprintf(buff, sizeof(buff),
                 "label %s.device%d -font {Courier 12} -text \"%4d                                                                 \"",
                 kInner, i, i);
        tclEval(interp, buff);
        snprintf(buff, sizeof(buff), "pack %s.device%d", kInner, i);
        tclEval(interp, buff);
    }

    tclEval(interp, "tkwait visibility .kivstat.frame.cframe.canvas.frame");

    // The scroll region takes Tk's answers as text; the size takes their values.
    tclEval(interp, "winfo reqwidth .kivstat.frame.cframe.canvas.frame");
    snprintf(reqW, sizeof(reqW), "%s", Tcl_GetStringResult(interp));
    tclEval(interp, "winfo reqheight .kivstat.frame.cframe.canvas.frame");
    snprintf(reqH, sizeof(reqH), "%s", Tcl_GetStringResult(interp));
    snprintf(buff, sizeof(buff),
             ".kivstat.frame.cframe.canvas config -scrollregion \"0 0 %s %s\"", reqW, reqH);
    tclEval(interp, buff);

    KIVWindowSize size = kivWindowStartSize((int)strtol(reqW, nullptr, 10),
                                            (int)strtol(reqH, nullptr, 10));
    printf("w=%d, h=%d\n", size.width, size.height);
    fflush(stdout);
    snprintf(buff, sizeof(buff), "wm geometry .kivstat %dx%d", size.width, size.height);
    tclEval(interp, buff);
}

// Brings the window's error table up to date with errStats: on the first call of
// a run creates the table header (in any mode it consumes errHeaderPending, so a
// run that fell back to the terminal never builds it later), then creates a row
// for each key seen for the first time and rewrites every row's text and colour.
// Called by checkErr with printMutex held, so errStats is stable here.
void KIVControl::updateErrWindow() {
    static char buff[512];

    if (errHeaderPending) {
        errHeaderPending = 0;
        if (statMode != 2) return;
        tclEval(interp, "label .kivstat.frame.cframe.canvas.frame.h3");
        tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame.h3");
        snprintf(buff, sizeof(buff),
                 "label %s.h4 -font {Courier 12} -text \"%4s %11s %6s %11s %14s %17s\"",
                 kInner, "Indx", "Key", "Code", "Qualifier", "UEC", "Errors");
        tclEval(interp, buff);
        tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame.h4");
        tclEval(interp, "label .kivstat.frame.cframe.canvas.frame.h5 -font {Courier 12} "
                        "-text \"---------------------------------------------------------------------\"");
        tclEval(interp, "pack .kivstat.frame.cframe.canvas.frame.h5");
    }
    if (statMode != 2 || errStats == nullptr || errWidgets == nullptr) return;

    for (int idx = errStats->nextIndex(-1); idx >= 0; idx = errStats->nextIndex(idx)) {
        char* key = errStats->getIndexKey(idx);
        unsigned long count = (unsigned long)(uintptr_t)errStats->get(key);
        unsigned long row = (unsigned long)(uintptr_t)errWidgets->get(key);
        if (row == 0) row = (unsigned long)addErrWidget(key);
        snprintf(buff, sizeof(buff), "%s.error%lu configure -text \"%s %17lu\"",
                 kInner, row, key, count);
        tclEval(interp, buff);
        snprintf(buff, sizeof(buff), "%s.error%lu configure -foreground #000077", kInner, row);
        tclEval(interp, buff);
    }
}

// Creates the next error row (text left to the caller), records it in errWidgets
// under the key, and grows the window to show it without running off the screen.
// Returns the new row's number, counted from 1 in order of creation.
int KIVControl::addErrWidget(char* key) {
    static char buff[512];

    int row = ++errWidgetCount;
    errWidgets->put(key, (void*)(uintptr_t)row);

    snprintf(buff, sizeof(buff), "label %s.error%d -font {Courier 12}", kInner, row);
    tclEval(interp, buff);
    snprintf(buff, sizeof(buff), "pack %s.error%d", kInner, row);
    tclEval(interp, buff);
    tclEval(interp, "update idletasks");

    auto query = [&](const char* script) { tclEval(interp, script); return resultInt(interp); };
    int reqW = query("winfo reqwidth .kivstat.frame.cframe.canvas.frame");
    int reqH = query("winfo reqheight .kivstat.frame.cframe.canvas.frame");
    int screenW = query("winfo screenwidth .kivstat");
    int screenH = query("winfo screenheight .kivstat");
    int rootX = query("winfo rootx .kivstat");
    int rootY = query("winfo rooty .kivstat");

    // Unlike setupWindow, the scroll region here takes the enlarged size.
    snprintf(buff, sizeof(buff),
             ".kivstat.frame.cframe.canvas config -scrollregion \"0 0 %d %d\"",
             reqW + 25, reqH + 75);
    tclEval(interp, buff);

    KIVWindowSize size = kivWindowGrowSize(reqW, reqH, screenW, screenH, rootX, rootY);
    printf("w=%d, h=%d\n", size.width, size.height);
    fflush(stdout);
    snprintf(buff, sizeof(buff), "wm geometry .kivstat %dx%d", size.width, size.height);
    tclEval(interp, buff);
    tclEval(interp, "update idletasks");
    return row;
}

// Marks the end of the run in the window: each device row turns red when its
// loop saw a failed command and green otherwise, and the halt button, whose
// command still clears kiv_run and destroys the window, now reads "Close Window".
// Runs before the loops are destroyed, so their error counts are still there.
void KIVControl::finalizeWindow() {
    static char tbuff[255];

    for (int i = 0; i < numDevices; i++) {
        const char* colour = (loops[i] != nullptr && loops[i]->errCount != 0) ? "#ff0000"
                                                                             : "#007700";
        snprintf(tbuff, sizeof(tbuff), "%s.device%d configure -foreground %s", kInner, i,
                 colour);
        tclEval(interp, tbuff);
    }
    tclEval(interp, ".kivstat.bframe.haltb configure -text \"Close Window\"");
}
