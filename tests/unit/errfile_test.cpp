// errfile_test.cpp: the error control file parser: entries with values, masks and
// announcements, comments, keyword and format failures, table limit, size bound.
#include <unistd.h>

#include "TestSupport.h"

namespace {

class ErrFile : public ::testing::Test {
protected:
    void TearDown() override { unlink(path.c_str()); }
    // Writes `text` to the file and parses it; the parser's stdout goes to `out`.
    int parse(const std::string& text) {
        writeFile(path, text);
        int rc = 0;
        out = stdoutOf([&] { rc = ctl.parseErrorFile(path.c_str()); });
        return rc;
    }
    // Entry i as "key code qual/masks uec/mask HALT|PASS".
    std::string entry(int i) {
        char s[64];
        snprintf(s, sizeof s, "%02X %02X %02X/%02X %02X %02X %04X/%04X %s", ctl.kcqKey[i],
                 ctl.kcqCode[i], ctl.kcqQual[i], ctl.kcqKeyMask[i], ctl.kcqCodeMask[i],
                 ctl.kcqQualMask[i], ctl.kcqUec[i], ctl.kcqUecMask[i], ctl.kcqHalt[i] ? "HALT" : "PASS");
        return s;
    }

    KIVControl ctl;
    std::string path = makeTempFile();
    std::string out;
};

TEST_F(ErrFile, EntriesWithValuesMasksAndAnnouncements) {
    ASSERT_EQ(parse("# medium errors\n\n   \n\t// another\n"
                    "HALT 02 04 00\n"
                    "pass 0x xx xx 0x0x\n"
                    "HALT 05 06\n"  // two fields: nothing counted, overwritten by the next line
                    "HALT 03 11 00 12xx\n"
                    "  \tPASS020400\n"
                    "halt aB Cd eF xXx9 F00F\n"  // several UECs: the last one stays
                    "PASS 01 02 03"),            // no line feed at the end
              0);
    EXPECT_EQ(out, "<I> Added KCQ to error count: KCQ = 02 04 00 MASK = FF FF FF HALT=1\n"
                   "<I> Added KCQ to error count: KCQ = 00 00 00 MASK = F0 00 00 HALT=0\n"
                   "<I> Added KCQ to error count: KCQ = 03 11 00 MASK = FF FF FF HALT=1\n"
                   "<I> Added KCQ to error count: KCQ = 02 04 00 MASK = FF FF FF HALT=0\n"
                   "<I> Added KCQ to error count: KCQ = AB CD EF MASK = FF FF FF HALT=1\n"
                   "<I> Added KCQ to error count: KCQ = 01 02 03 MASK = FF FF FF HALT=0\n");
    const char* const want[] = {
        "02 04 00/FF FF FF 0000/0000 HALT", "00 00 00/F0 00 00 0000/F0F0 PASS",
        "03 11 00/FF FF FF 1200/FF00 HALT", "02 04 00/FF FF FF 0000/0000 PASS",
        "AB CD EF/FF FF FF F00F/FFFF HALT", "01 02 03/FF FF FF 0000/0000 PASS",
    };
    ASSERT_EQ(ctl.kcqCount, 6);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(entry(i), want[i]);
}

// The first bad line ends the parse with -13; entries before it stay. A NUL byte
// is a character like any other: it fails its field instead of hiding the rest.
TEST_F(ErrFile, FormatFailuresStopAtOnce) {
    const std::string added = "<I> Added KCQ to error count: KCQ = 02 04 00 MASK = FF FF FF HALT=1\n";
    const std::string keyword = "<E> Keyword needs to be HALT or PASS\n", format = "<E> Parse Format";
    const struct { std::string line; int entries; std::string out; } cases[] = {
        {"Halt 02 04 00\n", 1, keyword},
        {"\r\n", 1, keyword},
        {"HALT 02 04 00 # note\n", 2, added + format},
        {"HALT 02 04 00\r\n", 2, added + format},
        {"HALT 2 04 00\n", 1, format},
        {std::string("HALT 02 04 00 \0garbage\n", 23), 2, added + format},
        {std::string("HALT 02\0 04 00\n", 16), 1, format},
    };
    for (const auto& c : cases) {
        ctl.kcqCount = 0;
        EXPECT_EQ(parse("HALT 02 04 00\n" + c.line + "HALT 0A 0B 0C\n"), -13) << c.line;
        EXPECT_EQ(out, added + c.out) << c.line;
        EXPECT_EQ(ctl.kcqCount, c.entries) << c.line;
    }
}

TEST_F(ErrFile, TableHolds255EntriesAndKeepsTheirUecs) {
    std::string text;
    char line[64];
    for (int i = 0; i < 255; ++i)
        text += (snprintf(line, sizeof line, "PASS %02X 11 00 %04X\n", i, 0x1000 + i), line);
    EXPECT_EQ(parse(text + "HALT 05 06 07 BEEF\n"), 0);
    ASSERT_EQ(ctl.kcqCount, 255);
    EXPECT_EQ(entry(0), "00 11 00/FF FF FF 1000/FFFF PASS");
    EXPECT_EQ(entry(254), "FE 11 00/FF FF FF 10FE/FFFF PASS");
    EXPECT_EQ(out.substr(out.rfind("<")), "<W> Max 255 kcq entries, ignoring entry!\n");
    // A refused line is still checked field by field.
    EXPECT_EQ(parse("HALT 05 06 07 BEEG\n"), -13);
    EXPECT_EQ(ctl.kcqUec[254], 0x10FE);
}

// A file past the size bound is refused as a file I/O failure, and says so;
// entries read before the bound stay.
TEST_F(ErrFile, FileLongerThanTheBoundIsRefused) {
    std::string comments;
    while (comments.size() <= (1u << 20)) comments += "# " + std::string(60, 'c') + "\n";
    EXPECT_EQ(parse("HALT 02 04 00\n" + comments), -112);
    EXPECT_NE(out.find("is longer than 1048576 bytes, stopped reading\n"), std::string::npos) << out;
    EXPECT_EQ(ctl.kcqCount, 1);
}

}  // namespace
