// errors_test.cpp: error reports of failed commands (display and log lines),
// their statistics keys and counts, the halt/pass decision, the drain of the
// print buffer, and the error statistics file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <unistd.h>

#include "CDBStruct.h"
#include "Hashtable.h"
#include "KIVControl.h"
#include "KIVLoop.h"
#include "MQBErr.h"
#include "TestSupport.h"

namespace {

// testErr reads only a loop's `running` flag and `deviceIdx`; this stands in for
// a loop without a device behind it. Nothing else of the object is touched,
// and its destructor never runs.
class LoopStub {
public:
    explicit LoopStub(uint32_t device) {
        memset(storage_, 0, sizeof storage_);
        loop_ = reinterpret_cast<KIVLoop*>(storage_);
        new (&loop_->running) std::atomic<bool>(true);
        loop_->deviceIdx = device;
    }
    KIVLoop* get() { return loop_; }
    bool running() const { return loop_->running.load(); }
    void setRunning(bool b) { loop_->running.store(b); }

private:
    alignas(KIVLoop) unsigned char storage_[sizeof(KIVLoop)];
    KIVLoop* loop_;
};

// Fixed-format sense data with key, code and qualifier; 32 bytes carry a UEC
// in bytes 20-21.
std::string sense(int len, uint8_t key, uint8_t asc, uint8_t ascq, uint16_t uec = 0) {
    std::string s(len, '\0');
    for (int i = 0; i < len; ++i) s[i] = (char)(0x40 + i);  // recognisable filler
    s[0] = (char)0x70;
    if (len > 2) s[2] = (char)key;
    if (len > 7) s[7] = (char)(len - 8);  // additional sense length
    if (len > 12) s[12] = (char)asc;
    if (len > 13) s[13] = (char)ascq;
    if (len > 21) {
        s[20] = (char)(uec >> 8);
        s[21] = (char)(uec & 0xFF);
    }
    return s;
}

std::string hexItems(const std::string& bytes, size_t from, size_t n) {
    std::string out;
    char item[8];
    for (size_t i = from; i < from + n; ++i) {
        snprintf(item, sizeof item, "%02X ", (unsigned char)bytes[i]);
        out += item;
    }
    return out;
}

class Errors : public ::testing::Test {
protected:
    void SetUp() override {
        ctl = std::make_unique<KIVControl>();
        ctl->interp = testInterp();
        ctl->printErrors = true;
        ctl->statMode = 1;  // keep the window out of checkErr
        resetBuffer();
        memset(&rec, 0, sizeof rec);
        rec.cdbLen = 10;
        rec.tag = 5;
        const uint8_t cdb[10] = {0x28, 0, 0, 0, 0x12, 0x34, 0, 0, 0x08, 0};
        memcpy(rec.cdb, cdb, sizeof cdb);
    }
    void TearDown() override {
        if (ctl->errLogfile != nullptr) fclose(ctl->errLogfile);
        ctl->errLogfile = nullptr;
        if (!logPath.empty()) unlink(logPath.c_str());
    }

    void resetBuffer() {
        memcpy(ctl->printBuf, "puts \"", 7);
        ctl->printLen = 6;
    }
    // What the test threads have queued for display.
    std::string queued() { return std::string(ctl->printBuf + 6, ctl->printLen - 6); }

    void openLog() {
        char tmpl[] = "/tmp/kiv_errlog_XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        logPath = tmpl;
        ctl->setErrLogfile(tmpl);
        ctl->errLogfile = fopen(tmpl, "w");
        ASSERT_NE(ctl->errLogfile, nullptr);
    }
    std::string readLog() {
        fflush(ctl->errLogfile);
        std::ifstream in(logPath);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    void fail(LoopStub& loop, int status, const std::string& s = std::string()) {
        std::string copy = s;
        ctl->testErr(loop.get(), status,
                     copy.empty() ? nullptr : reinterpret_cast<unsigned char*>(&copy[0]),
                     (int)copy.size(), &rec);
    }

    uintptr_t count(const char* key) {
        std::string k = key;
        return (uintptr_t)ctl->errStats->get(&k[0]);
    }

    std::unique_ptr<KIVControl> ctl;
    CDBStruct rec;
    std::string logPath;
};

const char* const kCdbLine = "TAGID: 0x05 CDB: 28 00 00 00 12 34 00 00 08 00 ";

TEST_F(Errors, CheckConditionReportOnDisplayAndLog) {
    openLog();
    LoopStub loop(3);
    std::string s = sense(18, 0x03, 0x11, 0x00);
    fail(loop, -16, s);
    std::string want = std::string("\nKIV Error: ") + MQBErr::errStr(-16) + " on device 3:\n" +
                       kCdbLine + "\nSense Data:\n" + hexItems(s, 0, 16) + "\n" +
                       hexItems(s, 16, 2) + "\n";
    EXPECT_EQ(queued(), want);
    EXPECT_EQ(readLog(), want);
    EXPECT_TRUE(loop.running());
}

TEST_F(Errors, SenseLinesOfSixteenItems) {
    LoopStub loop(0);
    std::string s32 = sense(32, 0x03, 0x11, 0x00, 0x1234);
    fail(loop, -16, s32);
    std::string q = queued();
    EXPECT_NE(q.find("Sense Data:\n" + hexItems(s32, 0, 16) + "\n" + hexItems(s32, 16, 16) +
                     "\n"),
              std::string::npos)
        << q;
    EXPECT_EQ(q.substr(q.size() - 49), hexItems(s32, 16, 16) + "\n");

    resetBuffer();
    fail(loop, -16);
    q = queued();
    EXPECT_EQ(q.substr(q.size() - 12), "Sense Data:\n");
}

TEST_F(Errors, TimeoutIsMarkedInTheLogOnlyAndAlwaysStops) {
    openLog();
    ctl->kcqCount = 1;  // one all-wildcard PASS entry matches everything
    ctl->kcqHalt[0] = false;
    LoopStub loop(7);
    fail(loop, -14);
    std::string head = std::string("\nKIV Error: ") + MQBErr::errStr(-14) + " on device 7:\n" +
                       kCdbLine + "\n";
    EXPECT_EQ(queued(), head);
    EXPECT_EQ(readLog(), head + "---Timeout Occurred---\n");
    EXPECT_FALSE(loop.running());
    EXPECT_EQ(ctl->errStats->size(), 0);  // only check conditions are counted
}

TEST_F(Errors, StatisticsKeyAndCounting) {
    LoopStub dev3(3), dev4(4);
    std::string s = sense(32, 0x03, 0x11, 0x00);
    fail(dev3, -16, s);
    fail(dev3, -16, s);
    fail(dev4, -16, s);
    fail(dev3, -16, sense(32, 0x04, 0x44, 0x01, 0xBEEF));
    // Too short to parse: counted under all-zero fields.
    fail(dev3, -16, sense(21, 0x03, 0x11, 0x00));

    const char* key3 = "   3          03     11          00           0000";
    ASSERT_EQ(strlen(key3), 50u);
    EXPECT_EQ(count(key3), 2u);
    EXPECT_EQ(count("   4          03     11          00           0000"), 1u);
    EXPECT_EQ(count("   3          04     44          01           BEEF"), 1u);
    EXPECT_EQ(count("   3          00     00          00           0000"), 1u);
    EXPECT_EQ(ctl->errStats->size(), 4);
}

TEST_F(Errors, EmptyTableFollowsErrorHalt) {
    LoopStub loop(0);
    fail(loop, -16, sense(18, 0x03, 0x11, 0x00));
    fail(loop, -12);
    EXPECT_TRUE(loop.running());

    ctl->haltOnError(true);
    fail(loop, -12);
    EXPECT_FALSE(loop.running());
}

TEST_F(Errors, FirstMatchingEntryDecides) {
    auto entry = [this](int i, uint8_t key, uint8_t km, uint8_t code, uint8_t cm, uint8_t qual,
                        uint8_t qm, bool halt) {
        ctl->kcqKey[i] = key;
        ctl->kcqKeyMask[i] = km;
        ctl->kcqCode[i] = code;
        ctl->kcqCodeMask[i] = cm;
        ctl->kcqQual[i] = qual;
        ctl->kcqQualMask[i] = qm;
        ctl->kcqHalt[i] = halt;
        ctl->kcqUec[i] = 0;
        ctl->kcqUecMask[i] = 0;
    };
    LoopStub loop(0);
    ctl->haltOnError(true);  // plays no part once the table has entries

    // Only HALT 03 11 00.
    entry(0, 0x03, 0xFF, 0x11, 0xFF, 0x00, 0xFF, true);
    ctl->kcqCount = 1;
    fail(loop, -16, sense(32, 0x04, 0x11, 0x00));
    EXPECT_TRUE(loop.running());
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00));
    EXPECT_FALSE(loop.running());

    // PASS 03 xx xx before HALT 03 11 00: the PASS wins and restarts the loop.
    entry(0, 0x03, 0xFF, 0x00, 0x00, 0x00, 0x00, false);
    entry(1, 0x03, 0xFF, 0x11, 0xFF, 0x00, 0xFF, true);
    ctl->kcqCount = 2;
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00));
    EXPECT_TRUE(loop.running());

    // UEC narrows an entry: HALT 03 11 00 12xx.
    entry(0, 0x03, 0xFF, 0x11, 0xFF, 0x00, 0xFF, true);
    ctl->kcqUec[0] = 0x1200;
    ctl->kcqUecMask[0] = 0xFF00;
    ctl->kcqCount = 1;
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00, 0x1300));
    EXPECT_TRUE(loop.running());
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00, 0x12AB));
    EXPECT_FALSE(loop.running());

    // A status without sense is matched as 00 00 00 / 0000.
    loop.setRunning(true);
    entry(0, 0x00, 0xFF, 0x00, 0xFF, 0x00, 0xFF, true);
    ctl->kcqCount = 1;
    fail(loop, -12);
    EXPECT_FALSE(loop.running());
}

TEST_F(Errors, SilentWhenNeitherShownNorLoggedButStillDecides) {
    ctl->reportErrors(false);
    LoopStub loop(2);
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00));
    EXPECT_EQ(ctl->printLen, 6u);
    EXPECT_EQ(ctl->errStats->size(), 0);
    EXPECT_TRUE(loop.running());
    ctl->haltOnError(true);
    fail(loop, -16, sense(32, 0x03, 0x11, 0x00));
    EXPECT_FALSE(loop.running());
    loop.setRunning(true);
    ctl->haltOnError(false);
    fail(loop, -14);
    EXPECT_FALSE(loop.running());

    // Logged but not shown: the log gets the report, the display nothing, and
    // the error is counted.
    openLog();
    fail(loop, -16, sense(18, 0x03, 0x11, 0x00));
    EXPECT_EQ(ctl->printLen, 6u);
    EXPECT_NE(readLog().find("Sense Data:\n"), std::string::npos);
    EXPECT_EQ(ctl->errStats->size(), 1);
}

TEST_F(Errors, FullPrintBufferDropsDisplayLinesOnly) {
    openLog();
    memset(ctl->printBuf + 6, 'a', 65000 - 6);
    ctl->printBuf[65000] = '\0';
    ctl->printLen = 65000;
    LoopStub loop(1);
    fail(loop, -16, sense(18, 0x03, 0x11, 0x00));
    EXPECT_EQ(ctl->printLen, 65000u);
    EXPECT_NE(readLog().find("KIV Error:"), std::string::npos);
}

TEST_F(Errors, CheckErrShowsQueuedTextLiterally) {
    Tcl_UnsetVar(testInterp(), "kiv_checkerr_ran", TCL_GLOBAL_ONLY);
    const char* hostile = "$x [set ::kiv_checkerr_ran 1] \" \\";
    ctl->printThreaded(hostile);
    ctl->printThreaded("second line");
    startTclCapture(testInterp());
    ctl->checkErr();
    std::string out = stopTclCapture(testInterp());
    EXPECT_EQ(out, std::string(hostile) + "\nsecond line\n\n");
    EXPECT_EQ(Tcl_GetVar(testInterp(), "kiv_checkerr_ran", TCL_GLOBAL_ONLY), nullptr);
    EXPECT_EQ(ctl->printLen, 6u);
    EXPECT_STREQ(ctl->printBuf, "puts \"");

    // Nothing waiting (or too little to be a line): no puts at all.
    startTclCapture(testInterp());
    ctl->checkErr();
    memcpy(ctl->printBuf + 6, "ab\n", 4);
    ctl->printLen = 9;
    ctl->checkErr();
    EXPECT_EQ(stopTclCapture(testInterp()), "");
    EXPECT_EQ(ctl->printLen, 9u);
}

TEST_F(Errors, StatFileHeaderRuleRowsAndReset) {
    LoopStub loop(3);
    std::string s = sense(32, 0x03, 0x11, 0x00);
    for (int i = 0; i < 5; ++i) fail(loop, -16, s);
    char key[] = "row";
    ctl->errWidgets->put(key, (void*)1);
    ctl->errWidgetCount = 1;

    char tmpl[] = "/tmp/kiv_errstat_XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    ctl->errStatFile = fopen(tmpl, "w");
    ASSERT_NE(ctl->errStatFile, nullptr);
    ctl->generateStatFile();
    fclose(ctl->errStatFile);
    ctl->errStatFile = nullptr;

    std::ifstream in(tmpl);
    std::stringstream ss;
    ss << in.rdbuf();
    unlink(tmpl);
    const std::string want =
        "Indx         Key   Code   Qualifier            UEC            Errors\n" +
        std::string(69, '-') + "\n" +
        "   3          03     11          00           0000                 5\n";
    EXPECT_EQ(ss.str(), want);
    EXPECT_EQ(ctl->errStats->size(), 0);
    EXPECT_EQ(ctl->errWidgets->size(), 0);
    EXPECT_EQ(ctl->errWidgetCount, 0);
}

}  // namespace
