// window_test.cpp: the status window without a display: its size arithmetic,
// and the error table kept by updateErrWindow and addErrWidget, whose scripts
// are recorded by a stand-in for Tk (an `unknown` handler that logs every widget command and a
// `winfo` that answers with chosen numbers).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hashtable.h"
#include "KIVControl.h"
#include "KIVControl_window.h"
#include "TestSupport.h"

TEST(WindowSize, StartSizeIsClampedToItsBounds) {
    KIVWindowSize small = kivWindowStartSize(300, 40);
    EXPECT_EQ(500, small.width);
    EXPECT_EQ(150, small.height);
    KIVWindowSize big = kivWindowStartSize(900, 700);
    EXPECT_EQ(800, big.width);
    EXPECT_EQ(600, big.height);
    KIVWindowSize mid = kivWindowStartSize(600, 300);
    EXPECT_EQ(625, mid.width);
    EXPECT_EQ(375, mid.height);
}

TEST(WindowSize, GrowSizeKeepsToTheScreenButNotBelowTheMinimum) {
    // Left edge 1000 px into a 1280 px screen leaves 230 px: raised to 500.
    KIVWindowSize edge = kivWindowGrowSize(600, 200, 1280, 1024, 1000, 900);
    EXPECT_EQ(500, edge.width);
    EXPECT_EQ(150, edge.height);
    // Growing has no fixed upper bound, only the screen room.
    KIVWindowSize wide = kivWindowGrowSize(900, 900, 1280, 1024, 100, 100);
    EXPECT_EQ(925, wide.width);
    EXPECT_EQ(874, wide.height);
    // Failed queries read as 0.
    KIVWindowSize none = kivWindowGrowSize(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(500, none.width);
    EXPECT_EQ(150, none.height);
}

namespace {

const char* kFakeTk = R"tcl(
    rename ::unknown ::__kiv_saved_unknown
    set ::tkLog {}
    array set ::tkAnswer {reqwidth 300 reqheight 40 screenwidth 1280 screenheight 1024
                          rootx 1000 rooty 100}
    proc ::unknown {args} { lappend ::tkLog $args; return "" }
    proc ::winfo {what args} { return $::tkAnswer($what) }
)tcl";

const char* kRemoveFakeTk = R"tcl(
    rename ::unknown {}
    rename ::__kiv_saved_unknown ::unknown
    catch {rename ::winfo {}}
    unset -nocomplain ::tkLog ::tkAnswer
)tcl";

const char* kInner = ".kivstat.frame.cframe.canvas.frame";

// Puts the global object into window mode against the fake Tk, and restores
// what it changed afterwards.
class WindowScripts : public ::testing::Test {
protected:
    Tcl_Interp* interp = testInterp();
    Tcl_Interp* savedInterp = nullptr;
    int savedMode = 0, savedDevices = 0;

    void SetUp() override {
        ASSERT_NE(nullptr, control.errStats);
        ASSERT_NE(nullptr, control.errWidgets);
        savedInterp = control.interp;
        savedMode = control.statMode;
        savedDevices = control.numDevices;
        control.interp = interp;
        control.statMode = 2;
        control.numDevices = 2;
        control.errHeaderPending = 1;
        control.errWidgetCount = 0;
        control.errStats->removeAll();
        control.errWidgets->removeAll();
        ASSERT_EQ(TCL_OK, Tcl_Eval(interp, kFakeTk));
    }
    void TearDown() override {
        Tcl_Eval(interp, kRemoveFakeTk);
        control.errStats->removeAll();
        control.errWidgets->removeAll();
        control.errWidgetCount = 0;
        control.interp = savedInterp;
        control.statMode = savedMode;
        control.numDevices = savedDevices;
    }

    // Every command the fake Tk saw, each as its words joined by blanks.
    std::vector<std::string> logged() {
        std::vector<std::string> out;
        Tcl_Eval(interp, "lmap c $::tkLog {join $c}");
        Tcl_Obj* list = Tcl_GetObjResult(interp);
        int n = 0;
        Tcl_ListObjLength(interp, list, &n);
        for (int i = 0; i < n; i++) {
            Tcl_Obj* item;
            Tcl_ListObjIndex(interp, list, i, &item);
            out.push_back(Tcl_GetString(item));
        }
        Tcl_Eval(interp, "set ::tkLog {}");
        return out;
    }

    static int countPrefix(const std::vector<std::string>& log, const std::string& prefix) {
        int n = 0;
        for (const auto& c : log)
            if (c.compare(0, prefix.size(), prefix) == 0) n++;
        return n;
    }

    static std::string key(int dev, int senseKey) {
        char buf[64];
        snprintf(buf, sizeof(buf), "%4i %11s %6s %11s %14s", dev, senseKey == 3 ? "03" : "04",
                 "11", "00", "0000");
        return buf;
    }
    void setCount(const std::string& k, unsigned long n) {
        std::string copy = k;
        control.errStats->remove(&copy[0]);
        control.errStats->put(&copy[0], (void*)(uintptr_t)n);
    }
};

}  // namespace

TEST_F(WindowScripts, ErrorHeaderIsConsumedOnceInAnyMode) {
    control.statMode = 1;
    setCount(key(0, 3), 1);
    control.updateErrWindow();
    EXPECT_EQ(0, control.errHeaderPending);
    // A later switch to window mode does not bring the header back.
    control.statMode = 2;
    testing::internal::CaptureStdout();
    control.updateErrWindow();
    testing::internal::GetCapturedStdout();
    std::vector<std::string> log = logged();
    EXPECT_EQ(0, countPrefix(log, "label " + std::string(kInner) + ".h4"));
    EXPECT_EQ(1, countPrefix(log, "label " + std::string(kInner) + ".error1"));
}

TEST_F(WindowScripts, RowsAreMadeOnFirstSightAndRewrittenOnEveryCall) {
    std::string k0 = key(0, 3), k1 = key(1, 4);
    setCount(k0, 1);
    testing::internal::CaptureStdout();
    control.updateErrWindow();
    std::string out = testing::internal::GetCapturedStdout();
    std::vector<std::string> log = logged();
    EXPECT_EQ(0, control.errHeaderPending);
    EXPECT_EQ(1, countPrefix(log, "label " + std::string(kInner) + ".h3"));
    EXPECT_EQ(1, countPrefix(log, "label " + std::string(kInner) +
                                      ".h4 -font Courier 12 -text Indx         Key   Code"
                                      "   Qualifier            UEC            Errors"));
    EXPECT_EQ(1, control.errWidgetCount);
    EXPECT_EQ(1u, (uintptr_t)control.errWidgets->get(&k0[0]));
    // The screen leaves 230 px right of the window: the width stays at 500.
    EXPECT_EQ("w=500, h=150\n", out);
    EXPECT_EQ(1, countPrefix(log, ".kivstat.frame.cframe.canvas config -scrollregion 0 0 325 115"));
    char text[128];
    snprintf(text, sizeof(text), "%s %17lu", k0.c_str(), 1ul);
    EXPECT_EQ(1, countPrefix(log, std::string(kInner) + ".error1 configure -text " + text));
    EXPECT_EQ(1, countPrefix(log, std::string(kInner) + ".error1 configure -foreground #000077"));

    // A second key gets row 2; the first keeps its row and shows its new count.
    setCount(k0, 7);
    setCount(k1, 2);
    testing::internal::CaptureStdout();
    control.updateErrWindow();
    testing::internal::GetCapturedStdout();
    log = logged();
    EXPECT_EQ(0, countPrefix(log, "label " + std::string(kInner) + ".h"));
    EXPECT_EQ(0, countPrefix(log, "label " + std::string(kInner) + ".error1"));
    EXPECT_EQ(1, countPrefix(log, "label " + std::string(kInner) + ".error2"));
    EXPECT_EQ(2, control.errWidgetCount);
    EXPECT_EQ(2u, (uintptr_t)control.errWidgets->get(&k1[0]));
    snprintf(text, sizeof(text), "%s %17lu", k0.c_str(), 7ul);
    EXPECT_EQ(1, countPrefix(log, std::string(kInner) + ".error1 configure -text " + text));
    snprintf(text, sizeof(text), "%s %17lu", k1.c_str(), 2ul);
    EXPECT_EQ(1, countPrefix(log, std::string(kInner) + ".error2 configure -text " + text));

    // Outside window mode the table is left alone.
    control.statMode = 1;
    control.updateErrWindow();
    EXPECT_TRUE(logged().empty());
}
