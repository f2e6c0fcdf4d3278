// help_test.cpp: Utils::cmdHelpLong: the kiv command's help with every option row
// in one aligned column, its missing usage and notes left out, and wrapping of
// running text.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "HelpFormatter.h"
#include "KivCommand.h"
#include "TestSupport.h"

namespace {

TEST(Help, KivHelpHasEveryRowAndExample) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    printHelp(interp);
    std::string h = Tcl_GetStringResult(interp);
    EXPECT_EQ(0u, h.find("NAME\n    kiv - A command for performing KIV tests on a drive\n\n"
                         "DESCRIPTION\n    This command is used to perform typical KIV type"));
    size_t opts = h.find("lengths between 1:64).\n\nOPTIONS\n") + 24;

    // The rows follow in table order, each "    <name><pad><description>" with
    // the question marks gone and every description in the same column.
    size_t col = h.find(kivHelpTable[1], opts) - h.find('\n', opts) - 1;
    std::string want = "OPTIONS\n";
    size_t rows = 0;
    for (const char** t = kivHelpTable; *t; t += 2, ++rows) {
        std::string bare = std::string(*t).substr(1, strlen(*t) - 2);
        ASSERT_GT(col, 4 + bare.size() + 1) << bare;
        want += "    " + bare + std::string(col - 4 - bare.size(), ' ') + t[1] + "\n";
    }
    EXPECT_EQ(25u, rows);
    want += "\nEXAMPLES\n    kiv\n    kiv -test s -lba 1:10 -lba 25%:50%\n"
            "    kiv -logstats statfile.txt -logerrors errfile.txt\n    kiv -statmode term\n";
    EXPECT_EQ(want, h.substr(opts));
}

TEST(Help, RunningTextWrapsAt76Columns) {
    std::string desc, longWord(500, 'x');  // words 1 to 9 wide: one line is exactly 76
    for (int i = 0; i < 60; ++i)
        desc += std::string(i % 9 + 1, 'w') + (i == 50 ? " " + longWord + " " : " ");
    Utils::cmdHelpLong(testInterp(), "kiv", nullptr, "s", desc.c_str(), nullptr, nullptr, nullptr, 1);
    std::string h = Tcl_GetStringResult(testInterp());
    // Lines are indented and filled (the next line's first word would not have
    // fitted); words come out whole and in order, an unbreakable one on its own line.
    std::istringstream in(h.substr(h.find("DESCRIPTION\n") + 12));
    std::string prev, joined;
    for (std::string l; std::getline(in, l) && !l.empty(); prev = l) {
        EXPECT_EQ(0u, l.find("    ")) << l;
        EXPECT_TRUE(l.size() <= 76 || l == "    " + longWord) << l;
        size_t firstWord = (l + " ").find(' ', 4) - 4;
        EXPECT_TRUE(prev.empty() || prev.size() + 1 + firstWord > 76) << prev;
        joined += l.substr(3);
    }
    EXPECT_EQ(" " + desc.substr(0, desc.size() - 1), joined);
}

}  // namespace
