// parsers_test.cpp: Utils::getInt<unsigned int> (bases, keywords, the problem
// flags, and what each problem leaves on standard error and in the result) and the
// -ops, -lba, -translen and -devices value parsers built on it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MQBManager.h"
#include "Parsers.h"
#include "TestSupport.h"
#include "Utils.h"

namespace {

const std::string kHint =
    "\n\nHint: If you are trying to enter hex data, prepend your data with '0x'.  Example: 0xff";

// Converts `text` starting from `before` as the result; returns the flags and
// fills `out`, the result and what went to standard error.
int convert(const char* text, unsigned int& out, std::string& result, std::string& err,
            const char* before = "") {
    static MQBManager* mgr = new MQBManager();  // as kiv passes its own: "send" needs one
    Tcl_Interp* interp = testInterp();
    Tcl_SetResult(interp, const_cast<char*>(before), TCL_VOLATILE);
    int rc = 0;
    err = stderrOf([&] { rc = Utils::getInt(out, text, interp, mgr); });
    result = Tcl_GetStringResult(interp);
    Tcl_ResetResult(interp);
    return rc;
}

TEST(GetInt, ValuesAndFlags) {
    // Flags: 1 overflow, 2 underflow, 4 sign, 8 format; a failed number keeps the
    // digits read so far (or the wrapped value).
    static const struct { const char* text; int flags; unsigned int out; } cases[] = {
        {"", 0, 0}, {"0755", 0, 0755}, {"0x", 0, 0}, {"0X1f", 0, 31}, {"$1f", 0, 31}, {"$", 8, 0},
        {"0xdeadBEEF", 0, 0xdeadbeefu}, {"4294967295", 0, 4294967295u}, {"037777777777", 0, 4294967295u},
        {"0b11111111111111111111111111111111", 0, 4294967295u}, {"0x00000000000000001", 0, 1},
        {"4294967296", 1, 0}, {"4294967300", 1, 4}, {"0x100000000", 1, 0}, {"040000000000", 1, 0},
        {"-5", 6, 4294967291u}, {"-0", 4, 0}, {"-1x", 14, 4294967295u}, {"12ab", 8, 12},
        {"08", 8, 0}, {"0x1G", 8, 1}, {"0b102", 8, 2}, {" 5", 8, 0}, {"5 ", 8, 5},
        // Keywords answer only when the number fails, and only in lower case (yes, no,
        // false, off: tests/tcl kiv-1.1; send and recv: KivCommand.OptionsReachTheirFields).
        {"true", 0, 1}, {"start", 0, 1}, {"on", 0, 1}, {"stop", 0, 0}, {"ON", 8, 0}, {"Send", 8, 0},
    };
    for (const auto& c : cases) {
        unsigned int out = 12345;
        std::string result, err;
        EXPECT_EQ(convert(c.text, out, result, err), c.flags) << '"' << c.text << '"';
        EXPECT_EQ(out, c.out) << '"' << c.text << '"';
    }
}

// (An overflow's message, and an underflow's with its sign message: tests/tcl kiv-2.3.)
TEST(GetInt, Diagnostics) {
    const struct { const char* text; const char* before; std::string err, result; } cases[] = {
        {"-0", "", "<E> signed/unsigned mismatch: '-0' saved to 4-byte integer, value = 0\n", ""},
        // The format message is appended to what the result already holds.
        {"maybe", "before:", "", "before:<E> Bad Number Format: maybe" + kHint},
    };
    for (const auto& c : cases) {
        unsigned int out = 0;
        std::string result, err;
        convert(c.text, out, result, err, c.before);
        EXPECT_EQ(err, c.err) << c.text;
        EXPECT_EQ(result, c.result) << c.text;
    }
}

TEST(Parsers, LbaPercentAndColonRules) {
    // -1 marks a bound left unwritten; a bad high part still leaves the low one.
    static const struct { const char* text; int rc; double low, high; } cases[] = {
        {"100", 0, 0, 100}, {"10:20", 0, 10, 20}, {"25%:50%", 0, 0.25, 0.5}, {"150%", 0, 0, 1.0},
        {":", 0, 0, 0}, {"5:10%", 0, 5, 0.1}, {"0x10:0b11", 0, 16, 3}, {"%", 0, 0, 0},
        {"4294967295", 0, 0, 4294967295.0}, {"5%x", 1, 0, -1}, {"5%%", 1, 0, -1},
        {"7:9%x", 1, 7, -1}, {"1:2:3", 8, 1, -1},
        // Absolute LBAs past 32 bits in any base; past 64 bits still an overflow.
        {"4294967296:0x1000000000", 0, 4294967296.0, 68719476736.0},
        {"1:99999999999999999999", 1, 1, -1},
    };
    Tcl_Interp* interp = testInterp();
    for (const auto& c : cases) {
        double low = -1, high = -1;
        Tcl_ResetResult(interp);
        EXPECT_EQ(parseLBAInfo(c.text, low, high, nullptr, interp), c.rc) << c.text;
        EXPECT_EQ(std::make_pair(low, high), std::make_pair(c.low, c.high)) << c.text;
        // A misplaced percent sign fails quietly; a bad number names the rest.
        EXPECT_EQ(Tcl_GetStringResult(interp),
                  c.rc == 8 ? "<E> Bad Number Format: 2:3" + kHint : std::string()) << c.text;
    }
}

TEST(Parsers, TransferLengthAndOps) {
    static const struct { const char* text; int rc; unsigned int low, high; } cases[] = {
        {"1:64", 0, 1, 64}, {"8", 0, 8, 8}, {"64:8", 0, 8, 8}, {":16", 0, 0, 16}, {"16:", 0, 0, 0},
        {"1:2:3", 0, 1, 23}, {"0x10:$20", 0, 16, 32}, {"x:4", 8, 0, 0}, {"1:-4", 6, 0, 0},
    };
    Tcl_Interp* interp = testInterp();
    for (const auto& c : cases) {
        unsigned int low = 99, high = 99;
        stderrOf([&] { EXPECT_EQ(parseTLInfo(c.text, low, high, nullptr, interp), c.rc) << c.text; });
        if (c.rc == 0) { EXPECT_EQ(low * 1000 + high, c.low * 1000 + c.high) << c.text; }
    }
    // -ops takes whatever was converted, even on failure; -10 wraps and reads back.
    int ops = -7, bad = -7;
    stderrOf([&] {
        EXPECT_EQ(parseOpInfo(nullptr, "12ab", ops, interp), 8);
        EXPECT_EQ(parseOpInfo(nullptr, "-10", bad, interp), 6);
    });
    EXPECT_EQ(std::make_pair(ops, bad), std::make_pair(12, -10));
}

TEST(Parsers, DevicesTokenising) {
    std::string max, huge;
    std::vector<unsigned> all;
    for (unsigned i = 0; i < 255; ++i) max += std::to_string(i) + " ", all.push_back(i);
    for (int i = 0; i < 10000; ++i) huge += "1 ";
    // Only a space separates; after a bad token the earlier entries stay written.
    // (An empty list's message: tests/tcl kiv-2.1.)
    struct { std::string text; int n; std::string result; std::vector<unsigned> head; } cases[]{
        {"0 2 5", 3, "", {0, 2, 5}}, {"  3  ", 1, "", {3}}, {"0x1   010", 2, "", {1, 8}},
        {"1\t2", 0, "<E> Bad Number Format: 1\t2" + kHint, {}}, {"     ", 0, "no devices!", {}},
        {"4 6 x", 0, "<E> Bad Number Format: x" + kHint, {4, 6}}, {max, 255, "", all},
        {max + "255", 0, "too many devices", {}}, {huge, 0, "too many devices", {}},
    };
    Tcl_Interp* interp = testInterp();
    for (const auto& c : cases) {
        unsigned int list[256] = {};
        Tcl_ResetResult(interp);
        EXPECT_EQ(getDevices(nullptr, interp, c.text.c_str(), list), c.n) << c.text.substr(0, 20);
        EXPECT_EQ(Tcl_GetStringResult(interp), c.result) << c.text.substr(0, 20);
        for (size_t i = 0; i < c.head.size(); ++i) EXPECT_EQ(list[i], c.head[i]) << c.text;
    }
}

}  // namespace
