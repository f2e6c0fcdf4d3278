// run_test.cpp: the output channels of a run: print (substituted), printLiteral
// (as given), tclEval's error line, and printThreaded with its 65000-character limit.
#include <cstring>

#include "TestSupport.h"

namespace {

// print lets Tcl substitute (library messages use \n) and cuts a line too long
// for its buffer; printLiteral shows the text as given; tclEval reports failure.
TEST(Output, PrintPrintLiteralAndTclEval) {
    KIVControl c;
    c.interp = testInterp();
    Tcl_SetVar(testInterp(), "x", "42", TCL_GLOBAL_ONLY);
    EXPECT_EQ(tclOutput([&] {
                  c.print("KIV: test complete\\n");
                  c.print("x=$x [expr {1+1}]");
                  c.printLiteral("file $x [weird] \\n \"q\"");
              }),
              "KIV: test complete\n\nx=42 2\nfile $x [weird] \\n \"q\"\n");
    std::string out = tclOutput([&] { c.print(std::string(10000, 'a').c_str()); });
    EXPECT_GT(out.size(), 3000u);
    EXPECT_LT(out.size(), 4097u);
    EXPECT_EQ(out.find_first_not_of('a'), out.size() - 1);

    int rc = TCL_OK;
    EXPECT_EQ(stdoutOf([&] { rc = c.tclEval(testInterp(), "nosuchcommand 1"); }),
              "<<<TCL ERROR>>>: \"nosuchcommand 1\" --> \"invalid command name \"nosuchcommand\"\"\n");
    EXPECT_EQ(rc, TCL_ERROR);
}

// Lines are queued after the `puts "` prefix, each with a line feed, until the
// buffer holds more than 65000 characters; then they are dropped.
TEST(Output, PrintThreadedQueuesUpToTheLimit) {
    KIVControl c;
    strcpy(c.printBuf, "puts \"");
    c.printLen = 6;
    c.printThreaded("first");
    c.printThreaded("second line");
    EXPECT_STREQ(c.printBuf, "puts \"first\nsecond line\n");
    const std::string line(99, 'x');  // 100 characters with its line feed
    while (c.printLen + 100 <= 65000) c.printThreaded(line.c_str());
    c.printThreaded(std::string(65000 - c.printLen - 1, 'y').c_str());
    c.printThreaded("z");  // taken at exactly 65000: the limit is "more than"
    EXPECT_EQ(c.printLen, 65002u);
    c.printThreaded("dropped");
    EXPECT_EQ(c.printLen, 65002u);
    EXPECT_EQ(strlen(c.printBuf), 65002u);
}

}  // namespace
