// window_test.cpp: the status window's size arithmetic, without a display: the
// start size clamped to its bounds, and growth kept to the room the screen leaves.
// (The window itself, its error rows and their growth: tests/tcl win-2.1, win-4.1.)
#include <gtest/gtest.h>

#include "KIVControl_window.h"

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
