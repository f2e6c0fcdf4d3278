// getint_test.cpp: Utils::getInt<unsigned int>: the bases, the overflow,
// underflow and sign flags with their standard-error lines, the keywords and the
// bad-format message left in the interpreter result.
#include <gtest/gtest.h>

#include <string>

#include "MQBManager.h"
#include "TestSupport.h"
#include "Utils.h"

namespace {

struct Case {
    const char*  text;
    int          flags;
    unsigned int out;
};

// Converts `text` with a fresh result; returns the flags, fills `out`, the
// interpreter result and what went to standard error.
int convert(const char* text, unsigned int& out, std::string& result, std::string& err,
            MQBManager* mgr = nullptr) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    testing::internal::CaptureStderr();
    int rc = Utils::getInt(out, text, interp, mgr);
    err = testing::internal::GetCapturedStderr();
    result = Tcl_GetStringResult(interp);
    Tcl_ResetResult(interp);
    return rc;
}

void expectCases(const Case* cases, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        unsigned int out = 12345;
        std::string result, err;
        int rc = convert(cases[i].text, out, result, err);
        EXPECT_EQ(rc, cases[i].flags) << '"' << cases[i].text << '"';
        EXPECT_EQ(out, cases[i].out) << '"' << cases[i].text << '"';
    }
}

TEST(GetInt, EveryBaseConverts) {
    static const Case cases[] = {
        {"", 0, 0},           {"0", 0, 0},         {"7", 0, 7},
        {"1234", 0, 1234},    {"007", 0, 7},       {"0755", 0, 0755},
        {"0x", 0, 0},         {"0x1F", 0, 31},     {"0X1f", 0, 31},
        {"$1f", 0, 31},       {"$", 8 /*len 1: decimal*/, 0},
        {"0xdeadBEEF", 0, 0xdeadbeefu},             {"0b", 0, 0},
        {"0b101", 0, 5},      {"0B11", 0, 3},      {"4294967295", 0, 4294967295u},
        {"037777777777", 0, 4294967295u},           {"0xFFFFFFFF", 0, 4294967295u},
        {"0b11111111111111111111111111111111", 0, 4294967295u},
        {"0x00000000000000001", 0, 1},  // leading zeros never overflow
    };
    expectCases(cases, sizeof cases / sizeof cases[0]);
}

TEST(GetInt, OverflowSetsFlag1AndKeepsWrappedValue) {
    static const Case cases[] = {
        {"4294967296", 1, 0},
        {"4294967300", 1, 4},
        {"99999999999", 1, (unsigned int)99999999999ull},
        {"0x100000000", 1, 0},
        {"040000000000", 1, 0},
        {"0b100000000000000000000000000000000", 1, 0},
    };
    expectCases(cases, sizeof cases / sizeof cases[0]);

    unsigned int out = 0;
    std::string result, err;
    EXPECT_EQ(convert("4294967296", out, result, err), 1);
    EXPECT_EQ(err, "<E> value '4294967296' overflowed 4-byte integer, value = 0\n");
    EXPECT_EQ(result, "");  // numeric trouble is not explained in the result
}

TEST(GetInt, NegativeNumbersSetSignAndUnderflow) {
    unsigned int out = 0;
    std::string result, err;
    EXPECT_EQ(convert("-1", out, result, err), 6);
    EXPECT_EQ(out, 4294967295u);
    EXPECT_EQ(err,
              "<E> signed/unsigned mismatch: '-1' saved to 4-byte integer, value = 4294967295\n"
              "<E> value '-1' underflowed 4-byte integer, value = 4294967295\n");
    EXPECT_EQ(result, "");

    EXPECT_EQ(convert("-5", out, result, err), 6);
    EXPECT_EQ(out, 4294967291u);

    EXPECT_EQ(convert("-0", out, result, err), 4);
    EXPECT_EQ(out, 0u);
    EXPECT_EQ(err, "<E> signed/unsigned mismatch: '-0' saved to 4-byte integer, value = 0\n");

    // Bad character after a negative number: all three problems reported.
    EXPECT_EQ(convert("-1x", out, result, err), 14);
    EXPECT_EQ(out, 4294967295u);
    EXPECT_EQ(result,
              "<E> Bad Number Format: -1x\n\nHint: If you are trying to enter hex data, "
              "prepend your data with '0x'.  Example: 0xff");
    EXPECT_EQ(err,
              "<E> signed/unsigned mismatch: '-1x' saved to 4-byte integer, value = 4294967295\n"
              "<E> value '-1x' underflowed 4-byte integer, value = 4294967295\n");
}

TEST(GetInt, BadFormatAppendsMessageAndKeepsDigitsRead) {
    static const Case cases[] = {
        {"12ab", 8, 12}, {"08", 8, 0}, {"0x1G", 8, 1}, {"0b102", 8, 2},
        {" 5", 8, 0},    {"5 ", 8, 5}, {"Yes", 8, 0},  {"ON", 8, 0},
        {"-", 8, 0},     {"1.5", 8, 1},
    };
    expectCases(cases, sizeof cases / sizeof cases[0]);

    Tcl_Interp* interp = testInterp();
    Tcl_SetResult(interp, (char*)"before:", TCL_STATIC);
    unsigned int out = 0;
    EXPECT_EQ(Utils::getInt(out, "maybe", interp, nullptr), 8);
    EXPECT_STREQ(Tcl_GetStringResult(interp),
                 "before:<E> Bad Number Format: maybe\n\nHint: If you are trying to enter hex "
                 "data, prepend your data with '0x'.  Example: 0xff");
    Tcl_ResetResult(interp);
}

TEST(GetInt, NullTextIsRefusedWithoutTouchingOutput) {
    unsigned int out = 77;
    std::string result, err;
    EXPECT_EQ(convert(nullptr, out, result, err), 8);
    EXPECT_EQ(out, 77u);
    EXPECT_EQ(err, "<E> Invalid parameter passed to Utils::getInt\n");
    EXPECT_EQ(result, "");
}

TEST(GetInt, KeywordsAnswerOnlyWhenNumberFails) {
    static const Case cases[] = {
        {"yes", 0, 1},  {"true", 0, 1}, {"start", 0, 1}, {"on", 0, 1},
        {"no", 0, 0},   {"false", 0, 0}, {"stop", 0, 0}, {"off", 0, 0},
    };
    expectCases(cases, sizeof cases / sizeof cases[0]);

    MQBManager mgr;
    mgr.setSendBufferIndex(3);
    mgr.setRecvBufferIndex(5);
    unsigned int out = 0;
    std::string result, err;
    EXPECT_EQ(convert("send", out, result, err, &mgr), 0);
    EXPECT_EQ(out, 3u);
    EXPECT_EQ(convert("recv", out, result, err, &mgr), 0);
    EXPECT_EQ(out, 5u);
    EXPECT_EQ(result, "");
    EXPECT_EQ(err, "");
    EXPECT_EQ(convert("Send", out, result, err, &mgr), 8);
}

}  // namespace
