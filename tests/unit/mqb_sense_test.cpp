// mqb_sense_test.cpp: sense data parsing in both formats, and the status texts.
#include <gtest/gtest.h>
#include <cstring>
#include "MQBErr.h"
#include "SenseParser.h"

namespace {

// 32-byte fixed sense: MEDIUM ERROR 11/00, VALID, INFORMATION 0x01020304, UEC 0x1234.
const unsigned char kFixedLong[32] = {
    0xF0, 0x00, 0x03, 0x01, 0x02, 0x03, 0x04, 24, 0, 0, 0, 0, 0x11, 0x00, 0, 0,
    0, 0, 0, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

}  // namespace

TEST(SenseFixed, LongFormCarriesEveryField) {
    unsigned char b = 0xEE;
    unsigned short u = 0;
    EXPECT_EQ(SenseParser::getKey(kFixedLong, &b), 0x03);
    EXPECT_EQ(b, 0x03);
    EXPECT_EQ(SenseParser::getCode(kFixedLong, &b), 0x11);
    EXPECT_EQ(SenseParser::getQual(kFixedLong, &b), 0x00);
    EXPECT_EQ(SenseParser::getValidBit(kFixedLong, &b), 1);
    EXPECT_EQ(SenseParser::getUec(kFixedLong, &u), 0x1234);
    EXPECT_EQ(u, 0x1234);
    unsigned char info[8];
    std::memset(info, 0xAA, sizeof info);
    ASSERT_EQ(SenseParser::getInformationBytes(kFixedLong, info), 0);
    const unsigned char want[8] = {0, 0, 0, 0, 1, 2, 3, 4};
    EXPECT_EQ(0, std::memcmp(info, want, 8));
}

TEST(SenseFixed, ShortFormHasNoUecAndDeferredCodeParses) {
    unsigned char s[18] = {0x71, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x21, 0x01, 0, 0, 0, 0};
    unsigned char b;
    EXPECT_EQ(SenseParser::getKey(s, &b), 0x05);
    EXPECT_EQ(SenseParser::getCode(s, &b), 0x21);
    EXPECT_EQ(SenseParser::getQual(s, &b), 0x01);
    EXPECT_EQ(SenseParser::getValidBit(s, &b), 0);
    EXPECT_EQ(SenseParser::getUec(s, nullptr), 0);
}

TEST(SenseDescriptor, KeyCodesAndInformationDescriptor) {
    // 0x72 header, then a 12-byte INFORMATION descriptor (VALID set) after a
    // 4-byte descriptor of another type that the parser has to skip.
    unsigned char s[8 + 4 + 12] = {0x72, 0x04, 0x44, 0x00, 0, 0, 0, 16,
                                   0x02, 0x02, 0, 0,
                                   0x00, 0x0A, 0x80, 0, 0, 0, 0, 1, 0, 0, 0x10, 0x20};
    unsigned char b;
    EXPECT_EQ(SenseParser::getKey(s, &b), 0x04);
    EXPECT_EQ(SenseParser::getCode(s, &b), 0x44);
    EXPECT_EQ(SenseParser::getQual(s, &b), 0x00);
    EXPECT_EQ(SenseParser::getValidBit(s, &b), 1);
    EXPECT_EQ(SenseParser::getUec(s, nullptr), 0);
    unsigned char info[8] = {};
    ASSERT_EQ(SenseParser::getInformationBytes(s, info), 0);
    const unsigned char want[8] = {0, 0, 0, 1, 0, 0, 0x10, 0x20};
    EXPECT_EQ(0, std::memcmp(info, want, 8));

    s[14] = 0;  // INFORMATION descriptor without its VALID bit
    EXPECT_EQ(SenseParser::getValidBit(s, &b), 0);
}

TEST(SenseUnknown, EveryGetterGivesZero) {
    unsigned char s[32] = {0x7F, 0, 0x03, 1, 2, 3, 4, 24, 0, 0, 0, 0, 0x11};
    unsigned char b = 9;
    unsigned short u = 9;
    EXPECT_EQ(SenseParser::getKey(s, &b), 0);
    EXPECT_EQ(b, 0);
    EXPECT_EQ(SenseParser::getCode(s, &b), 0);
    EXPECT_EQ(SenseParser::getValidBit(s, &b), 0);
    EXPECT_EQ(SenseParser::getUec(s, &u), 0);
    EXPECT_EQ(u, 0);
    unsigned char info[8];
    EXPECT_EQ(SenseParser::getInformationBytes(s, info), -1);
}

TEST(MQBErrText, EveryCodeAndUnknown) {
    const struct { int code; const char* text; } rows[] = {
        {-1, "General Failure"}, {-2, "Invalid Parameter"}, {-3, "No Device Selected"},
        {-4, "Device Index Out Of Range"}, {-5, "Device Locked"}, {-6, "Queue Full"},
        {-7, "No Command Outstanding"}, {-8, "Unknown IOCTL Code"}, {-9, "Bad Command Record"},
        {-10, "Out Of Memory"}, {-11, "Unknown Driver"}, {-12, "I/O Error"},
        {-13, "Format Error"}, {-14, "Command Timeout"}, {-15, "Device Busy"},
        {-16, "Check Condition"}, {-17, "Transfer Length Too Large"}, {-18, "Not Supported"},
    };
    for (const auto& r : rows) EXPECT_STREQ(MQBErr::errStr(r.code), r.text) << r.code;
    for (int code : {-19, -111, 1, 100, -2147483647 - 1})
        EXPECT_STREQ(MQBErr::errStr(code), "Unknown Status") << code;
    EXPECT_NE(MQBErr::errStr(0), nullptr);
}
