// help_test.cpp: the long-help layout of Utils::cmdHelpLong: sections and their
// order, option names without question marks in one aligned column, wrapping of
// the description, examples one per line, null parts, and very long texts.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "HelpFormatter.h"
#include "KivCommand.h"
#include "TestSupport.h"

namespace {

// Runs the formatter and returns the interpreter result.
std::string help(const char* name, const char* usage, const char* summary, const char* description,
                 const char* notes, const char* examples, const char** table, int style = 1) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    EXPECT_EQ(TCL_OK, Utils::cmdHelpLong(interp, name, usage, summary, description, notes,
                                         examples, table, style));
    return Tcl_GetStringResult(interp);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// The line that starts with `prefix` after the indent, or "" when none does.
std::string rowOf(const std::string& text, const std::string& prefix) {
    for (const auto& l : lines(text))
        if (l.compare(0, 4 + prefix.size(), "    " + prefix) == 0) return l;
    return "";
}

const char* kSmallTable[] = {"?-alpha?", "First option", "?-be?", "Second option",
                             "-plain", "Has no marks", nullptr};

}  // namespace

TEST(HelpLayout, SectionsInOrderWithNameLine) {
    std::string h = help("kiv", nullptr, "A command for testing", "Does things.", nullptr,
                         "kiv\nkiv -alpha 1", kSmallTable);
    auto ls = lines(h);
    ASSERT_GE(ls.size(), 2u);
    EXPECT_EQ("NAME", ls[0]);
    EXPECT_EQ("    kiv - A command for testing", ls[1]);
    size_t name = h.find("NAME\n"), desc = h.find("\nDESCRIPTION\n"),
           opts = h.find("\nOPTIONS\n"), ex = h.find("\nEXAMPLES\n");
    ASSERT_NE(std::string::npos, desc);
    ASSERT_NE(std::string::npos, opts);
    ASSERT_NE(std::string::npos, ex);
    EXPECT_LT(name, desc);
    EXPECT_LT(desc, opts);
    EXPECT_LT(opts, ex);
    EXPECT_NE(std::string::npos, h.find("    Does things.\n"));
    // Examples each on their own indented line, in order, after the heading.
    size_t e1 = h.find("\n    kiv\n", ex), e2 = h.find("\n    kiv -alpha 1\n", ex);
    ASSERT_NE(std::string::npos, e1);
    ASSERT_NE(std::string::npos, e2);
    EXPECT_LT(e1, e2);
}

TEST(HelpLayout, OptionsStrippedAndAligned) {
    std::string h = help("kiv", nullptr, "s", "d", nullptr, nullptr, kSmallTable);
    EXPECT_EQ(std::string::npos, h.find('?'));
    std::string a = rowOf(h, "-alpha"), b = rowOf(h, "-be "), p = rowOf(h, "-plain");
    ASSERT_FALSE(a.empty());
    ASSERT_FALSE(b.empty());
    ASSERT_FALSE(p.empty());
    // Every description starts in the same column, past the longest name.
    size_t col = a.find("First option");
    EXPECT_EQ(col, b.find("Second option"));
    EXPECT_EQ(col, p.find("Has no marks"));
    EXPECT_GT(col, 4 + std::string("-plain").size());
    // Rows keep table order.
    EXPECT_LT(h.find(a), h.find(b));
    EXPECT_LT(h.find(b), h.find(p));
}

TEST(HelpLayout, DescriptionWrapsAt76Columns) {
    std::string desc;
    for (int i = 0; i < 60; ++i) desc += "word" + std::to_string(i) + " ";
    std::string h = help("kiv", nullptr, "s", desc.c_str(), nullptr, nullptr, nullptr);
    size_t start = h.find("DESCRIPTION\n") + 12;
    size_t last = 0;
    int bodyLines = 0;
    std::istringstream in(h.substr(start));
    for (std::string l; std::getline(in, l) && !l.empty();) {
        ++bodyLines;
        EXPECT_LE(l.size(), 76u) << l;
        EXPECT_EQ(0u, l.find("    ")) << l;
        // Words come out whole and in order.
        std::istringstream words(l);
        for (std::string w; words >> w;) {
            size_t n = std::stoul(w.substr(4));
            EXPECT_EQ(last, n);
            last = n + 1;
        }
    }
    EXPECT_EQ(60u, last);
    EXPECT_GT(bodyLines, 4);
}

TEST(HelpLayout, NullPartsAreSkipped) {
    std::string h = help("kiv", nullptr, "sum", nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ("NAME\n    kiv - sum\n", h);

    h = help("kiv", "kiv ?-opt value?", "sum", "desc", "Mind the gap.", nullptr, nullptr);
    EXPECT_NE(std::string::npos, h.find("USAGE\n    kiv ?-opt value?\n"));
    EXPECT_NE(std::string::npos, h.find("NOTES\n    Mind the gap.\n"));

    // Null name and summary, and a row whose description is null: no crash,
    // the option still listed and the table ends there.
    const char* cut[] = {"?-only?", nullptr, "?-after?", "never shown", nullptr};
    h = help(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, cut);
    EXPECT_NE(std::string::npos, h.find("    -only\n"));
    EXPECT_EQ(std::string::npos, h.find("-after"));

    const char* empty[] = {nullptr};
    h = help("kiv", nullptr, "sum", "desc", nullptr, "", empty);
    EXPECT_EQ(std::string::npos, h.find("OPTIONS"));
    EXPECT_EQ(std::string::npos, h.find("EXAMPLES"));
}

TEST(HelpLayout, VeryLongTextsKeptWhole) {
    std::string longOpt = "?-" + std::string(3000, 'o') + "?";
    std::string longDesc(20000, 'd');
    std::string longWord(500, 'w');
    const char* table[] = {longOpt.c_str(), longDesc.c_str(), "?-x?", "short", nullptr};
    std::string desc = "start " + longWord + " end";
    std::string h = help("kiv", nullptr, "s", desc.c_str(), nullptr, nullptr, table);
    // An unbreakable word gets a line of its own rather than being cut.
    EXPECT_NE(std::string::npos, h.find("    " + longWord + "\n"));
    std::string row = rowOf(h, "-" + std::string(3000, 'o'));
    ASSERT_FALSE(row.empty());
    EXPECT_NE(std::string::npos, row.find(longDesc));
    std::string x = rowOf(h, "-x ");
    EXPECT_EQ(row.find(longDesc), x.find("short"));
}

TEST(HelpLayout, ShortStyleListsOptionNames) {
    std::string h = help("kiv", nullptr, "sum", "desc", nullptr, "kiv", kSmallTable, 0);
    EXPECT_EQ(0u, h.find("NAME\n    kiv - sum\n"));
    EXPECT_NE(std::string::npos, h.find("-alpha -be -plain"));
    EXPECT_EQ(std::string::npos, h.find("DESCRIPTION"));
}

// The extension's own help: all 25 rows of its table come out, in order,
// without question marks, each with its description on the same line.
TEST(HelpLayout, KivHelpHasEveryRow) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    printHelp(interp);
    std::string h = Tcl_GetStringResult(interp);
    EXPECT_EQ(0u, h.find("NAME\n    kiv - A command for performing KIV tests on a drive\n"));
    size_t opts = h.find("\nOPTIONS\n");
    ASSERT_NE(std::string::npos, opts);
    size_t pos = opts, rows = 0;
    for (const char** t = kivHelpTable; *t; t += 2, ++rows) {
        std::string name = *t;
        ASSERT_GE(name.size(), 3u);
        EXPECT_EQ('?', name.front());
        EXPECT_EQ('?', name.back());
        std::string bare = name.substr(1, name.size() - 2);
        std::string row = rowOf(h.substr(opts), bare + " ");
        ASSERT_FALSE(row.empty()) << bare;
        EXPECT_NE(std::string::npos, row.find(t[1])) << bare;
        size_t at = h.find(row, opts);
        EXPECT_GT(at, pos) << bare << " out of order";
        pos = at;
    }
    EXPECT_EQ(25u, rows);
    EXPECT_EQ(std::string::npos, h.find("?-"));
    size_t ex = h.find("\nEXAMPLES\n");
    ASSERT_NE(std::string::npos, ex);
    for (const char* e : {"    kiv\n", "    kiv -test s -lba 1:10 -lba 25%:50%\n",
                          "    kiv -logstats statfile.txt -logerrors errfile.txt\n",
                          "    kiv -statmode term\n"})
        EXPECT_NE(std::string::npos, h.find(e, ex)) << e;
    EXPECT_NE(std::string::npos, h.find("\nDESCRIPTION\n    This command is used to perform"));
}
