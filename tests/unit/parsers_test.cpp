// parsers_test.cpp: the -ops, -lba, -translen and -devices value parsers.
#include <gtest/gtest.h>

#include <string>

#include "Parsers.h"
#include "TestSupport.h"

namespace {

struct LbaCase {
    const char* text;
    int         rc;
    double      low, high;
};

TEST(ParseLBAInfo, NumbersAndPercentages) {
    static const LbaCase cases[] = {
        {"100", 0, 0.0, 100.0},   {"10:20", 0, 10.0, 20.0}, {"25%:50%", 0, 0.25, 0.5},
        {"10%", 0, 0.0, 0.1},     {"150%", 0, 0.0, 1.0},    {":", 0, 0.0, 0.0},
        {"5:10%", 0, 5.0, 0.1},   {"0x10:0b11", 0, 16.0, 3.0}, {"%", 0, 0.0, 0.0},
        {"4294967295", 0, 0.0, 4294967295.0},
    };
    Tcl_Interp* interp = testInterp();
    for (const LbaCase& c : cases) {
        double low = -1, high = -1;
        EXPECT_EQ(parseLBAInfo(c.text, low, high, nullptr, interp), c.rc) << c.text;
        EXPECT_DOUBLE_EQ(low, c.low) << c.text;
        EXPECT_DOUBLE_EQ(high, c.high) << c.text;
    }
    Tcl_ResetResult(interp);
}

TEST(ParseLBAInfo, MisplacedPercentAndBadPartsFail) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    double low = -1, high = -1;
    // A percent sign that is not last fails quietly.
    EXPECT_EQ(parseLBAInfo("5%x", low, high, nullptr, interp), 1);
    EXPECT_STREQ(Tcl_GetStringResult(interp), "");
    EXPECT_EQ(parseLBAInfo("5%%", low, high, nullptr, interp), 1);
    // A bad high part leaves the low bound stored.
    low = high = -1;
    EXPECT_EQ(parseLBAInfo("1:2:3", low, high, nullptr, interp), 8);
    EXPECT_DOUBLE_EQ(low, 1.0);
    EXPECT_STREQ(Tcl_GetStringResult(interp),
                 "<E> Bad Number Format: 2:3\n\nHint: If you are trying to enter hex data, "
                 "prepend your data with '0x'.  Example: 0xff");
    Tcl_ResetResult(interp);
    low = high = -1;
    EXPECT_EQ(parseLBAInfo("7:9%x", low, high, nullptr, interp), 1);
    EXPECT_DOUBLE_EQ(low, 7.0);
    // The caller's text is never changed.
    char text[] = "25%:50%";
    parseLBAInfo(text, low, high, nullptr, interp);
    EXPECT_STREQ(text, "25%:50%");
    Tcl_ResetResult(interp);
}

TEST(ParseTLInfo, RangesAndFixedLengths) {
    struct {
        const char*  text;
        unsigned int low, high;
    } cases[] = {
        {"1:64", 1, 64}, {"8", 8, 8},   {"64:8", 8, 8},  {":16", 0, 16},
        {"16:", 0, 0},   {"1:2:3", 1, 23}, {"0x10:$20", 16, 32}, {"2::5", 2, 5},
    };
    Tcl_Interp* interp = testInterp();
    for (auto& c : cases) {
        unsigned int low = 99, high = 99;
        EXPECT_EQ(parseTLInfo(c.text, low, high, nullptr, interp), 0) << c.text;
        EXPECT_EQ(low, c.low) << c.text;
        EXPECT_EQ(high, c.high) << c.text;
    }
    unsigned int low = 0, high = 0;
    EXPECT_EQ(parseTLInfo("x:4", low, high, nullptr, interp), 8);
    testing::internal::CaptureStderr();
    EXPECT_EQ(parseTLInfo("1:-4", low, high, nullptr, interp), 6);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("mismatch: '-4'"), std::string::npos);
    Tcl_ResetResult(interp);
}

TEST(ParseOpInfo, CopiesValueEvenOnFailure) {
    Tcl_Interp* interp = testInterp();
    int ops = -7;
    EXPECT_EQ(parseOpInfo(nullptr, "0x20", ops, interp), 0);
    EXPECT_EQ(ops, 32);
    EXPECT_EQ(parseOpInfo(nullptr, "12ab", ops, interp), 8);
    EXPECT_EQ(ops, 12);
    testing::internal::CaptureStderr();
    EXPECT_EQ(parseOpInfo(nullptr, "-10", ops, interp), 6);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(ops, -10);  // the wrapped unsigned value reads back as -10
    Tcl_ResetResult(interp);
}

// Runs getDevices with a fresh result; returns the count and fills `result`.
int devices(const std::string& text, unsigned int* list, std::string& result) {
    Tcl_Interp* interp = testInterp();
    Tcl_ResetResult(interp);
    int n = getDevices(nullptr, interp, text.c_str(), list);
    result = Tcl_GetStringResult(interp);
    Tcl_ResetResult(interp);
    return n;
}

TEST(GetDevices, SpacesSeparateTokens) {
    unsigned int list[256] = {};
    std::string result;
    EXPECT_EQ(devices("0 2 5", list, result), 3);
    EXPECT_EQ(list[0], 0u);
    EXPECT_EQ(list[1], 2u);
    EXPECT_EQ(list[2], 5u);
    EXPECT_EQ(devices("  3  ", list, result), 1);
    EXPECT_EQ(list[0], 3u);
    EXPECT_EQ(devices("0x1   010", list, result), 2);
    EXPECT_EQ(list[1], 8u);
    // Only the space character separates.
    EXPECT_EQ(devices("1\t2", list, result), 0);
    EXPECT_EQ(result.rfind("<E> Bad Number Format: 1\t2", 0), 0u);
}

TEST(GetDevices, EmptyBlankAndTooManyFail) {
    unsigned int list[256] = {};
    std::string result;
    EXPECT_EQ(devices("", list, result), 0);
    EXPECT_EQ(result, "No devices to parse!");
    EXPECT_EQ(devices("     ", list, result), 0);
    EXPECT_EQ(result, "no devices!");

    std::string many;
    for (int i = 0; i < 255; ++i) many += std::to_string(i) + " ";
    EXPECT_EQ(devices(many, list, result), 255);
    EXPECT_EQ(list[254], 254u);
    EXPECT_EQ(devices(many + "255", list, result), 0);
    EXPECT_EQ(result, "too many devices");
    // Far more tokens than room stops at the first extra one.
    std::string huge;
    for (int i = 0; i < 10000; ++i) huge += "1 ";
    EXPECT_EQ(devices(huge, list, result), 0);
    EXPECT_EQ(result, "too many devices");
    // A bad token after good ones: earlier entries are written, the count is 0.
    list[0] = list[1] = 99;
    EXPECT_EQ(devices("4 6 x", list, result), 0);
    EXPECT_EQ(list[0], 4u);
    EXPECT_EQ(list[1], 6u);
}

}  // namespace
