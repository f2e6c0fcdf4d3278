// getint_test.cpp: Utils::getInt<unsigned int>: bases, keywords, the problem
// flags, and what each problem leaves on standard error and in the result.
#include <gtest/gtest.h>

#include <string>

#include "MQBManager.h"
#include "TestSupport.h"
#include "Utils.h"

namespace {

const std::string kHint =
    "\n\nHint: If you are trying to enter hex data, prepend your data with '0x'.  Example: 0xff";

std::string show(const char* text) { return text ? '"' + std::string(text) + '"' : "null"; }

// Converts `text` starting from `before` as the result; returns the flags and
// fills `out`, the result and what went to standard error.
int convert(const char* text, unsigned int& out, std::string& result, std::string& err,
            const char* before = "") {
    static MQBManager* mgr = new MQBManager();
    mgr->setSendBufferIndex(3);
    mgr->setRecvBufferIndex(5);
    Tcl_Interp* interp = testInterp();
    Tcl_SetResult(interp, const_cast<char*>(before), TCL_VOLATILE);
    testing::internal::CaptureStderr();
    int rc = Utils::getInt(out, text, interp, mgr);
    err = testing::internal::GetCapturedStderr();
    result = Tcl_GetStringResult(interp);
    Tcl_ResetResult(interp);
    return rc;
}

TEST(GetInt, ValuesAndFlags) {
    // Flags: 1 overflow, 2 underflow, 4 sign, 8 format; a failed number keeps the
    // digits read so far (or the wrapped value).
    static const struct { const char* text; int flags; unsigned int out; } cases[] = {
        {"", 0, 0}, {"1234", 0, 1234}, {"0755", 0, 0755}, {"0x", 0, 0}, {"0X1f", 0, 31},
        {"$1f", 0, 31}, {"$", 8, 0}, {"0xdeadBEEF", 0, 0xdeadbeefu}, {"0B101", 0, 5},
        {"4294967295", 0, 4294967295u}, {"037777777777", 0, 4294967295u},
        {"0b11111111111111111111111111111111", 0, 4294967295u}, {"0x00000000000000001", 0, 1},
        {"4294967296", 1, 0}, {"4294967300", 1, 4}, {"0x100000000", 1, 0}, {"040000000000", 1, 0},
        {"-5", 6, 4294967291u}, {"-0", 4, 0}, {"-1x", 14, 4294967295u}, {"12ab", 8, 12},
        {"08", 8, 0}, {"0x1G", 8, 1}, {"0b102", 8, 2}, {" 5", 8, 0}, {"5 ", 8, 5}, {"1.5", 8, 1},
        // Keywords answer only when the number fails, and only in lower case.
        {"yes", 0, 1}, {"true", 0, 1}, {"start", 0, 1}, {"on", 0, 1}, {"no", 0, 0},
        {"false", 0, 0}, {"stop", 0, 0}, {"off", 0, 0}, {"ON", 8, 0}, {"send", 0, 3},
        {"recv", 0, 5}, {"Send", 8, 0}, {nullptr, 8, 12345},  // null: output untouched
    };
    for (const auto& c : cases) {
        unsigned int out = 12345;
        std::string result, err;
        EXPECT_EQ(convert(c.text, out, result, err), c.flags) << show(c.text);
        EXPECT_EQ(out, c.out) << show(c.text);
    }
}

TEST(GetInt, Diagnostics) {
    const struct { const char* text; const char* before; std::string err, result; } cases[] = {
        {"4294967296", "", "<E> value '4294967296' overflowed 4-byte integer, value = 0\n", ""},
        {"-0", "", "<E> signed/unsigned mismatch: '-0' saved to 4-byte integer, value = 0\n", ""},
        {"-1x", "",
         "<E> signed/unsigned mismatch: '-1x' saved to 4-byte integer, value = 4294967295\n"
         "<E> value '-1x' underflowed 4-byte integer, value = 4294967295\n",
         "<E> Bad Number Format: -1x" + kHint},
        // The format message is appended to what the result already holds.
        {"maybe", "before:", "", "before:<E> Bad Number Format: maybe" + kHint},
        {nullptr, "", "<E> Invalid parameter passed to Utils::getInt\n", ""},
    };
    for (const auto& c : cases) {
        unsigned int out = 0;
        std::string result, err;
        convert(c.text, out, result, err, c.before);
        EXPECT_EQ(err, c.err) << show(c.text);
        EXPECT_EQ(result, c.result) << show(c.text);
    }
}

}  // namespace
