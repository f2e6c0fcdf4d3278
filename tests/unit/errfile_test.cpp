// errfile_test.cpp: the error control file parser on real files: accepted
// entries with their values and masks, comments and blank lines, the keyword
// and format failures, the table limit, and the field helpers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "KIVControl.h"

namespace {

class ErrFile : public ::testing::Test {
protected:
    void SetUp() override {
        ctl = std::make_unique<KIVControl>();
        char tmpl[] = "/tmp/kiv_errfile_XXXXXX";
        int fd = mkstemp(tmpl);
        ASSERT_GE(fd, 0);
        close(fd);
        path = tmpl;
    }
    void TearDown() override { unlink(path.c_str()); }

    // Writes `text` to the file, parses it and keeps what the parser wrote on
    // the process's stdout in `out`.
    int parse(const std::string& text) {
        FILE* f = fopen(path.c_str(), "w");
        EXPECT_NE(f, nullptr);
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        testing::internal::CaptureStdout();
        int rc = ctl->parseErrorFile(path.c_str());
        out = testing::internal::GetCapturedStdout();
        return rc;
    }

    void expectEntry(int i, unsigned key, unsigned code, unsigned qual, unsigned keyMask,
                     unsigned codeMask, unsigned qualMask, unsigned uec, unsigned uecMask,
                     bool halt) {
        SCOPED_TRACE("entry " + std::to_string(i));
        EXPECT_EQ(ctl->kcqKey[i], key);
        EXPECT_EQ(ctl->kcqCode[i], code);
        EXPECT_EQ(ctl->kcqQual[i], qual);
        EXPECT_EQ(ctl->kcqKeyMask[i], keyMask);
        EXPECT_EQ(ctl->kcqCodeMask[i], codeMask);
        EXPECT_EQ(ctl->kcqQualMask[i], qualMask);
        EXPECT_EQ(ctl->kcqUec[i], uec);
        EXPECT_EQ(ctl->kcqUecMask[i], uecMask);
        EXPECT_EQ(ctl->kcqHalt[i], halt);
    }

    std::unique_ptr<KIVControl> ctl;
    std::string path;
    std::string out;
};

TEST_F(ErrFile, CommentsAndBlankLinesGiveAnEmptyTable) {
    EXPECT_EQ(parse("# medium errors\n\n   \n\t// another\n   # indented\n \n//x\n"), 0);
    EXPECT_EQ(ctl->kcqCount, 0);
    EXPECT_EQ(out, "");
}

TEST_F(ErrFile, EntriesWithValuesMasksAndAnnouncements) {
    EXPECT_EQ(parse("HALT 02 04 00\n"
                    "pass 0x xx xx\n"
                    "HALT 03 11 00 12xx\n"
                    "  \tPASS020400\n"
                    "halt aB Cd eF xXx9 F00F\n"),
              0);
    ASSERT_EQ(ctl->kcqCount, 5);
    expectEntry(0, 0x02, 0x04, 0x00, 0xFF, 0xFF, 0xFF, 0, 0, true);
    expectEntry(1, 0x00, 0x00, 0x00, 0xF0, 0x00, 0x00, 0, 0, false);
    expectEntry(2, 0x03, 0x11, 0x00, 0xFF, 0xFF, 0xFF, 0x1200, 0xFF00, true);
    expectEntry(3, 0x02, 0x04, 0x00, 0xFF, 0xFF, 0xFF, 0, 0, false);
    // Several UEC fields: the last one stays.
    expectEntry(4, 0xAB, 0xCD, 0xEF, 0xFF, 0xFF, 0xFF, 0xF00F, 0xFFFF, true);
    EXPECT_EQ(out,
              "<I> Added KCQ to error count: KCQ = 02 04 00 MASK = FF FF FF HALT=1\n"
              "<I> Added KCQ to error count: KCQ = 00 00 00 MASK = F0 00 00 HALT=0\n"
              "<I> Added KCQ to error count: KCQ = 03 11 00 MASK = FF FF FF HALT=1\n"
              "<I> Added KCQ to error count: KCQ = 02 04 00 MASK = FF FF FF HALT=0\n"
              "<I> Added KCQ to error count: KCQ = AB CD EF MASK = FF FF FF HALT=1\n");
}

TEST_F(ErrFile, SecondFileAppendsToTheTable) {
    ASSERT_EQ(parse("HALT 02 04 00\n"), 0);
    ASSERT_EQ(parse("PASS 03 xx xx 0x0x\n"), 0);
    ASSERT_EQ(ctl->kcqCount, 2);
    expectEntry(1, 0x03, 0x00, 0x00, 0xFF, 0x00, 0x00, 0x0000, 0xF0F0, false);
}

TEST_F(ErrFile, ShortLinesAddNothingAndLastLineNeedsNoNewline) {
    // Keyword alone and two fields: nothing counted; their key/code are
    // overwritten by the next complete line.
    EXPECT_EQ(parse("HALT\nHALT 05 06\nPASS 01 02 03"), 0);
    ASSERT_EQ(ctl->kcqCount, 1);
    expectEntry(0, 0x01, 0x02, 0x03, 0xFF, 0xFF, 0xFF, 0, 0, false);

    // The final character of a line is never looked at, so a lone stray
    // character closing the file's last line is ignored.
    EXPECT_EQ(parse("HALT 07 08 09 Q"), 0);
    ASSERT_EQ(ctl->kcqCount, 2);
    expectEntry(1, 0x07, 0x08, 0x09, 0xFF, 0xFF, 0xFF, 0, 0, true);
}

TEST_F(ErrFile, FormatFailures) {
    struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"Halt 02 04 00\n", "<E> Keyword needs to be HALT or PASS\n"},
        {"STOP 02 04 00\n", "<E> Keyword needs to be HALT or PASS\n"},
        {"/HALT 02 04 00\n", "<E> Keyword needs to be HALT or PASS\n"},
        {"\r\n", "<E> Keyword needs to be HALT or PASS\n"},
        {"HALT 02 04 00 # note\n", "<E> Parse Format"},
        {"HALT 02 04 00\r\n", "<E> Parse Format"},
        {"HALT 03 11 00 12\n", "<E> Parse Format"},
        {"HALT 2 04 00\n", "<E> Parse Format"},
        {"HALT 0g 04 00\n", "<E> Parse Format"},
        {"HALT 02 04 00 12345\n", "<E> Parse Format"},
    };
    for (const auto& c : cases) {
        ctl->kcqCount = 0;
        EXPECT_EQ(parse(c.text), -13) << c.text;
        EXPECT_EQ(out.substr(out.size() < strlen(c.message) ? 0 : out.size() - strlen(c.message)),
                  c.message)
            << c.text;
    }
}

TEST_F(ErrFile, FailureStopsAtOnceAndKeepsEarlierEntries) {
    EXPECT_EQ(parse("HALT 02 04 00\nbad! line\nHALT 03 11 00\n"), -13);
    EXPECT_EQ(ctl->kcqCount, 1);
    EXPECT_EQ(out.find("03 11 00"), std::string::npos);
}

TEST_F(ErrFile, MissingFile) {
    EXPECT_EQ(ctl->parseErrorFile("/nonexistent/kiv/errfile"), -111);
    EXPECT_EQ(ctl->kcqCount, 0);
}

TEST_F(ErrFile, TableHolds255EntriesAndKeepsTheirUecs) {
    std::string text;
    for (int i = 0; i < 255; ++i) {
        char line[64];
        snprintf(line, sizeof line, "PASS %02X 11 00 %04X\n", i, 0x1000 + i);
        text += line;
    }
    text += "HALT 05 06 07 BEEF\n";
    EXPECT_EQ(parse(text), 0);
    ASSERT_EQ(ctl->kcqCount, 255);
    expectEntry(0, 0x00, 0x11, 0x00, 0xFF, 0xFF, 0xFF, 0x1000, 0xFFFF, false);
    expectEntry(254, 0xFE, 0x11, 0x00, 0xFF, 0xFF, 0xFF, 0x10FE, 0xFFFF, false);
    const std::string warn = "<W> Max 255 kcq entries, ignoring entry!\n";
    ASSERT_GE(out.size(), warn.size());
    EXPECT_EQ(out.substr(out.size() - warn.size()), warn);

    // A refused line is still checked field by field.
    EXPECT_EQ(parse("HALT 05 06 07 BEEG\n"), -13);
    EXPECT_EQ(ctl->kcqUec[254], 0x10FE);
}

TEST(ErrFileHelpers, HexValAndIsValidSense) {
    KIVControl c;
    const std::string digits = "0123456789abcdefABCDEF";
    for (char ch : digits) {
        EXPECT_TRUE(c.isValidSense(ch)) << ch;
        int want = ch <= '9' ? ch - '0' : (ch | 0x20) - 'a' + 10;
        EXPECT_EQ(c.hexVal(ch), want) << ch;
    }
    for (char ch : std::string("xX")) {
        EXPECT_TRUE(c.isValidSense(ch));
        EXPECT_EQ(c.hexVal(ch), -1);
    }
    for (char ch : std::string("gG/: \t\r\n#")) {
        EXPECT_FALSE(c.isValidSense(ch)) << int(ch);
        EXPECT_EQ(c.hexVal(ch), -1) << int(ch);
    }
    EXPECT_FALSE(c.isValidSense('\0'));
}

}  // namespace
