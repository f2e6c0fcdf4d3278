// run_test.cpp: the output channels of a run: print (substituted), printLiteral
// (as given), printThreaded (the print buffer and its 65000-character limit,
// from several threads at once), tclEval's error line, and the millisecond clock.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/time.h>

#include <cstring>
#include <string>

#include "KIVControl.h"
#include "TestSupport.h"

namespace {

class Output : public ::testing::Test {
protected:
    void SetUp() override {
        c.interp = testInterp();
        strcpy(c.printBuf, "puts \"");
        c.printLen = 6;
    }
    KIVControl c;
};

// print lets Tcl substitute (library messages use \n); printLiteral does not.
TEST_F(Output, PrintSubstitutesAndPrintLiteralDoesNot) {
    Tcl_Interp* in = testInterp();
    Tcl_SetVar(in, "x", "42", TCL_GLOBAL_ONLY);
    startTclCapture(in);
    c.print("KIV: test complete\\n");
    c.print("x=$x [expr {1+1}]");
    c.print("");
    c.printLiteral("file $x [weird] \\n \"q\"");
    std::string out = stopTclCapture(in);
    EXPECT_EQ(out, "KIV: test complete\n\nx=42 2\n\nfile $x [weird] \\n \"q\"\n");
}

// A line too long for print's buffer is cut, never written past its end.
TEST_F(Output, PrintCutsAnOverlongLine) {
    std::string longText(10000, 'a');
    startTclCapture(testInterp());
    c.print(longText.c_str());
    std::string out = stopTclCapture(testInterp());
    EXPECT_GT(out.size(), 3000u);
    EXPECT_LT(out.size(), 4097u);
    EXPECT_EQ(out.find_first_not_of('a'), out.size() - 1);
}

// Lines are queued after the `puts "` prefix, each with a line feed, until the
// buffer holds more than 65000 characters; then they are dropped.
TEST_F(Output, PrintThreadedQueuesUpToTheLimit) {
    c.printThreaded("first");
    c.printThreaded("second line");
    EXPECT_STREQ(c.printBuf, "puts \"first\nsecond line\n");
    EXPECT_EQ(c.printLen, strlen(c.printBuf));

    std::string line(99, 'x');   // 100 characters with its line feed
    while (c.printLen <= 65000) c.printThreaded(line.c_str());
    size_t full = c.printLen;
    EXPECT_LE(full, 65100u);
    c.printThreaded("dropped");
    EXPECT_EQ(c.printLen, full);
    EXPECT_EQ(strlen(c.printBuf), full);
}

struct Writer {
    KIVControl* c;
    int id;
};

void* writeLines(void* arg) {
    Writer* w = static_cast<Writer*>(arg);
    char line[32];
    for (int k = 0; k < 200; k++) {
        snprintf(line, sizeof line, "t%d-%03d", w->id, k);
        w->c->printThreaded(line);
    }
    return nullptr;
}

// Four threads queueing at once lose no line and never interleave inside one.
TEST_F(Output, PrintThreadedFromSeveralThreads) {
    pthread_t t[4];
    Writer w[4];
    for (int i = 0; i < 4; i++) {
        w[i] = {&c, i};
        ASSERT_EQ(pthread_create(&t[i], nullptr, writeLines, &w[i]), 0);
    }
    for (int i = 0; i < 4; i++) pthread_join(t[i], nullptr);
    std::string body(c.printBuf + 6, c.printLen - 6);
    int lines = 0;
    size_t pos = 0;
    int next[4] = {0, 0, 0, 0};
    while (pos < body.size()) {
        size_t nl = body.find('\n', pos);
        ASSERT_NE(nl, std::string::npos);
        std::string l = body.substr(pos, nl - pos);
        int id = -1, k = -1;
        ASSERT_EQ(sscanf(l.c_str(), "t%d-%d", &id, &k), 2) << l;
        ASSERT_TRUE(id >= 0 && id < 4);
        EXPECT_EQ(k, next[id]++) << "lines of one thread keep their order";
        lines++;
        pos = nl + 1;
    }
    EXPECT_EQ(lines, 800);
}

// A failing script gives the <<<TCL ERROR>>> line on stdout and its code back.
TEST_F(Output, TclEvalReportsFailure) {
    testing::internal::CaptureStdout();
    int ok = c.tclEval(testInterp(), "set y 5");
    int bad = c.tclEval(testInterp(), "nosuchcommand 1");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, TCL_OK);
    EXPECT_EQ(bad, TCL_ERROR);
    EXPECT_EQ(out,
              "<<<TCL ERROR>>>: \"nosuchcommand 1\" --> \"invalid command name \"nosuchcommand\"\"\n");
}

// getMS is gettimeofday in milliseconds, modulo 2^32.
TEST_F(Output, GetMsFollowsTheWallClock) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    uint32_t expect = (uint32_t)((uint64_t)tv.tv_sec * 1000 + tv.tv_usec / 1000);
    uint32_t got = c.getMS();
    EXPECT_LT((uint32_t)(got - expect), 50u);
}

}  // namespace
