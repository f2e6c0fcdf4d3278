// window_test.cpp: the status window without a display: its size arithmetic, and
// the error table scripts of updateErrWindow/addErrWidget, recorded by a stand-in
// for Tk (an `unknown` that logs every widget command, a `winfo` with set answers).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hashtable.h"
#include "KIVControl.h"
#include "KIVControl_window.h"
#include "TestSupport.h"

TEST(WindowSize, StartIsClampedAndGrowKeepsToTheScreenRoom) {
    struct { int w, h, sw, sh, x, y, wantW, wantH; } rows[] = {
        {300, 40, 0, 0, 0, 0, 500, 150},              // start: raised to the minimum
        {900, 700, 0, 0, 0, 0, 800, 600},             // start: cut to the maximum
        {600, 200, 1280, 1024, 1000, 900, 500, 150},  // grow: 230 px room, raised to 500
        {900, 900, 1280, 1024, 100, 100, 925, 874},   // grow: no cap but the screen
    };
    for (const auto& r : rows) {
        KIVWindowSize s = r.sw ? kivWindowGrowSize(r.w, r.h, r.sw, r.sh, r.x, r.y)
                               : kivWindowStartSize(r.w, r.h);
        EXPECT_EQ(std::make_pair(r.wantW, r.wantH), std::make_pair(s.width, s.height)) << r.w << "x" << r.h;
    }
}

// Sets the counts, runs updateErrWindow in `mode`, and checks that its output and
// Tk commands (one a line) hold each of `has` and none of `hasNot`.
static void errPass(int mode, const std::vector<std::pair<std::string, unsigned long>>& counts,
                    const std::vector<std::string>& has, const std::vector<std::string>& hasNot) {
    for (auto c : counts) {
        control.errStats->remove(&c.first[0]);
        control.errStats->put(&c.first[0], (void*)(uintptr_t)c.second);
    }
    control.statMode = mode;
    Tcl_Eval(control.interp, "set ::tkLog {}");
    std::string log = stdoutOf([] { control.updateErrWindow(); });
    Tcl_Eval(control.interp, "join $::tkLog \\n");
    log += Tcl_GetStringResult(control.interp);
    for (const auto& s : has) EXPECT_NE(std::string::npos, log.find(s)) << s << " in\n" << log;
    for (const auto& s : hasNot) EXPECT_EQ(std::string::npos, log.find(s)) << s << " in\n" << log;
}

TEST(WindowErrors, RowsAreMadeOnFirstSightRewrittenEachPassAndTheHeaderComesOnce) {
    Tcl_Interp* savedInterp = control.interp;
    int savedMode = control.statMode;
    control.interp = testInterp();
    control.errHeaderPending = 1;
    control.errWidgetCount = 0;
    control.errStats->removeAll();
    control.errWidgets->removeAll();
    ASSERT_EQ(TCL_OK, Tcl_Eval(control.interp, R"tcl(
        rename ::unknown ::__saved_unknown
        proc ::unknown {args} { lappend ::tkLog [join $args]; return "" }
        proc ::winfo {what args} {
            dict get {reqwidth 300 reqheight 40 screenwidth 1280 screenheight 1024
                      rootx 1000 rooty 100} $what
        })tcl"));
    const std::string in = "label .kivstat.frame.cframe.canvas.frame";
    char b[160];
    auto key = [&b](int dev, const char* sense) {
        return std::string(b, snprintf(b, sizeof b, "%4i %11s %6s %11s %14s", dev, sense,
                                       "11", "00", "0000"));
    };
    auto row = [&b](int n, const std::string& k, unsigned long c) {
        return std::string(
            b, snprintf(b, sizeof b, ".error%d configure -text %s %17lu\n", n, k.c_str(), c));
    };
    std::string k0 = key(0, "03"), k1 = key(1, "04");

    // First pass: the header and row 1; 230 px of screen room keep the width at 500.
    errPass(2, {{k0, 1}}, {"w=500, h=150\n", in + ".h3", in + ".h4 -font", in + ".error1 -font",
                           "config -scrollregion 0 0 325 115", row(1, k0, 1),
                           ".error1 configure -foreground #000077"}, {});
    // Second pass: only the new key gets a label (row 2); both texts are rewritten.
    errPass(2, {{k0, 7}, {k1, 2}}, {in + ".error2", row(1, k0, 7), row(2, k1, 2)},
            {".h4", in + ".error1"});
    EXPECT_EQ(2u, (uintptr_t)control.errWidgets->get(&k1[0]));
    // Outside window mode nothing is drawn, and a header not yet made is dropped
    // for good: back in window mode a new key gets a row but no header.
    control.errHeaderPending = 1;
    errPass(1, {{k1, 3}}, {}, {"label", "configure"});
    errPass(2, {{key(1, "05"), 1}}, {in + ".error3"}, {".h4"});

    Tcl_Eval(control.interp,
             "rename ::unknown {}; rename ::__saved_unknown ::unknown; rename ::winfo {}");
    control.errStats->removeAll();
    control.errWidgets->removeAll();
    control.errWidgetCount = 0;
    control.interp = savedInterp;
    control.statMode = savedMode;
}
