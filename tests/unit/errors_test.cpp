// errors_test.cpp: the output channels of a run (print, tclEval's
// error line, the print buffer and its drain), reports of failed commands on the
// display and in the log, their counts, the halt/pass decision and the statistics file.
#include <cstring>
#include <unistd.h>

#include "CDBStruct.h"
#include "Hashtable.h"
#include "KIVLoop.h"
#include "MQBErr.h"
#include "TestSupport.h"

namespace {

// Sense bytes of `len` with a recognisable filler; long enough to be parsed (22
// bytes), they carry key, code and qualifier in fixed format and a UEC in bytes 20-21.
std::string sense(int len, uint8_t key = 3, uint8_t asc = 0x11, uint8_t ascq = 0, uint16_t uec = 0) {
    std::string s(len, '\0');
    for (int i = 0; i < len; ++i) s[i] = (char)(i ? 0x40 + i : 0x70);
    if (len > 21) s[2] = (char)key, s[7] = (char)(len - 8), s[12] = (char)asc,
                  s[13] = (char)ascq, s[20] = (char)(uec >> 8), s[21] = (char)(uec & 0xFF);
    return s;
}

std::string head(int status, int device) {
    return std::string("\nKIV Error: ") + MQBErr::errStr(status) + " on device " +
           std::to_string(device) + ":\nTAGID: 0x05 CDB: 28 00 00 00 12 34 00 00 08 00 \n";
}

class Errors : public SimControlTest {
protected:
    void SetUp() override {
        SimControlTest::SetUp();
        ctl->interp = testInterp(), ctl->printErrors = true;
        rec.cdbLen = 10, rec.tag = 5;
        const uint8_t cdb[10] = {0x28, 0, 0, 0, 0x12, 0x34, 0, 0, 0x08, 0};
        memcpy(rec.cdb, cdb, sizeof cdb);
        strcpy(ctl->printBuf, "puts \""), ctl->printLen = 6;
    }
    void TearDown() override {
        if (ctl->errLogfile != nullptr) fclose(ctl->errLogfile);
        unlink(path.c_str());
        SimControlTest::TearDown();
    }
    std::string queued() { return std::string(ctl->printBuf + 6, ctl->printLen - 6); }
    void openLog() {
        ctl->setErrLogfile(path.c_str());
        ASSERT_NE(ctl->errLogfile = fopen(path.c_str(), "w"), nullptr);
    }
    std::string readLog() { return fflush(ctl->errLogfile), readFile(path); }
    void fail(KIVLoop* loop, int status, std::string s = std::string()) {
        ctl->testErr(loop, status, s.empty() ? nullptr : reinterpret_cast<unsigned char*>(&s[0]),
                    (int)s.size(), &rec);
    }

    CDBStruct rec{};
    std::string path = makeTempFile();
};

// Sense bytes go sixteen to a line, the last line short; a check condition
// without sense still has its heading. The log gets the display's lines.
// (A full 32-byte report, a time-out's log line and -printerrors 0 are checked
// on real runs by tests/tcl err-1.1 and err-1.2.)
TEST_F(Errors, ReportOnDisplayAndLog) {
    openLog();
    KIVLoop* loop = addLoop(3);
    const struct { std::string sense, lines; } cases[] = {
        {sense(18), "Sense Data:\n70 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F \n50 51 \n"},
        {"", "Sense Data:\n"},
    };
    std::string log;
    for (const auto& c : cases) {
        ctl->printLen = 6;
        fail(loop, -16, c.sense);
        EXPECT_EQ(queued(), head(-16, 3) + c.lines);
        log += head(-16, 3) + c.lines;
    }
    EXPECT_EQ(readLog(), log);
    ctl->reportErrors(false), ctl->setErrLogfile(nullptr);  // neither shown nor logged:
    ctl->haltOnError(true);                                 // not counted, but still judged
    int counted = ctl->errStats->size();
    fail(loop, -16, sense(32));
    EXPECT_EQ(ctl->errStats->size(), counted);
    EXPECT_FALSE(loop->running.load());
}

// The first matching entry decides; with an empty table errorHalt does; a
// status without sense is matched as 00 00 00 / 0000; a time-out always stops.
// PASS restarts a halted loop but not one the statistics pass stopped (for good).
TEST_F(Errors, HaltOrPassDecision) {
    const struct { const char* file; bool errorHalt, before; int status, key, uec; bool after, stopped = false; } cases[] = {
        {"", true, true, -12, 0, 0, false},
        {"HALT 03 11 00\n", false, true, -16, 3, 0, false},
        {"PASS 03 xx xx\nHALT 03 11 00\n", false, false, -16, 3, 0, true},
        {"PASS 03 xx xx\n", true, true, -16, 4, 0, true},  // no match: left alone, and errorHalt
        {"PASS 03 xx xx\n", false, false, -16, 4, 0, false},  // plays no part now
        {"HALT 03 11 00 12xx\n", false, true, -16, 3, 0x1300, true},
        {"HALT 03 11 00 12xx\n", false, true, -16, 3, 0x12AB, false},
        {"HALT 00 00 00\n", false, true, -12, 0, 0, false},
        {"PASS xx xx xx\n", false, true, -14, 0, 0, false},
        {"PASS xx xx xx\n", false, true, -16, 3, 0, false, true},
    };
    for (const auto& c : cases) {
        writeFile(path, c.file);
        ctl->kcqCount = 0, ctl->kcqUec[0] = ctl->kcqUecMask[0] = 0;  // as init does
        stdoutOf([&] { EXPECT_EQ(ctl->parseErrorFile(path.c_str()), 0); });
        ctl->haltOnError(c.errorHalt);
        KIVLoop* loop = addLoop(0);
        c.stopped ? loop->requestStop() : loop->running.store(c.before);
        fail(loop, c.status, c.status == -16 ? sense(32, c.key, 0x11, 0, (uint16_t)c.uec) : "");
        EXPECT_EQ(loop->running.load(), c.after) << c.file << c.status << " " << c.key << " " << c.uec;
    }
}

// print lets Tcl substitute (library messages use \n) and cuts a line too long
// for its buffer; tclEval reports failure. (printLiteral: the parameter report's
// user texts, Report.UserTextIsCopiedAndShownLiterally.)
TEST(Output, PrintAndTclEval) {
    KIVControl c;
    c.interp = testInterp();
    Tcl_SetVar(testInterp(), "x", "42", TCL_GLOBAL_ONLY);
    EXPECT_EQ(tclOutput([&] { c.print("x=$x [expr {1+1}]\\n"); }), "x=42 2\n\n");
    std::string out = tclOutput([&] { c.print(std::string(10000, 'a').c_str()); });
    EXPECT_GT(out.size(), 3000u);
    EXPECT_LT(out.size(), 4097u);
    EXPECT_EQ(out.find_first_not_of('a'), out.size() - 1);

    int rc = TCL_OK;
    EXPECT_EQ(stdoutOf([&] { rc = c.tclEval(testInterp(), "nosuchcommand 1"); }),
              "<<<TCL ERROR>>>: \"nosuchcommand 1\" --> \"invalid command name \"nosuchcommand\"\"\n");
    EXPECT_EQ(rc, TCL_ERROR);
}

// Lines are queued after the `puts "` prefix, each with a line feed, and checkErr
// shows them literally in one puts and empties the buffer. Lines are taken until
// the buffer holds more than 65000 characters; then they are dropped.
TEST_F(Errors, PrintBufferDrainAndLimit) {
    Tcl_UnsetVar(testInterp(), "kiv_checkerr_ran", TCL_GLOBAL_ONLY);
    const char* hostile = "$x [set ::kiv_checkerr_ran 1] \" \\";
    ctl->printThreaded(hostile);
    ctl->printThreaded("second line");
    ctl->statMode = 1;  // keep the window out of it
    EXPECT_EQ(tclOutput([&] { ctl->checkErr(); }), std::string(hostile) + "\nsecond line\n\n");
    EXPECT_EQ(Tcl_GetVar(testInterp(), "kiv_checkerr_ran", TCL_GLOBAL_ONLY), nullptr);
    EXPECT_STREQ(ctl->printBuf, "puts \"");
    EXPECT_EQ(tclOutput([&] { ctl->checkErr(); }), "");  // nothing waiting: no puts at all

    const std::string line(99, 'x');  // 100 characters with its line feed
    while (ctl->printLen + 100 <= 65000) ctl->printThreaded(line.c_str());
    ctl->printThreaded(std::string(65000 - ctl->printLen - 1, 'y').c_str());
    ctl->printThreaded("z");  // taken at exactly 65000: the limit is "more than"
    EXPECT_EQ(ctl->printLen, 65002u);
    ctl->printThreaded("dropped");
    EXPECT_EQ(ctl->printLen, 65002u);
    EXPECT_EQ(strlen(ctl->printBuf), 65002u);
}

// Each check condition counts under a 50-character key of device, key, code,
// qualifier and UEC; time-outs and other failures are not counted. The statistics
// file lists the keys with their counts. (Rows of several devices, a UEC and a
// short sense: tests/tcl err-3.1.)
TEST_F(Errors, CountsAndStatFile) {
    KIVLoop* dev3 = addLoop(3);
    for (int i = 0; i < 5; ++i) fail(dev3, -16, sense(32));
    fail(dev3, -14), fail(dev3, -12);
    ASSERT_NE(ctl->errStatFile = fopen(path.c_str(), "w"), nullptr);
    ctl->generateStatFile();
    fclose(ctl->errStatFile);
    EXPECT_EQ(readFile(path), "Indx         Key   Code   Qualifier            UEC            Errors\n" +
                                  std::string(69, '-') + "\n"
                                  "   3          03     11          00           0000                 5\n");
}

}  // namespace
