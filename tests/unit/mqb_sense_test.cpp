// mqb_sense_test.cpp: sense data parsing in both formats, and the status texts.
#include <gtest/gtest.h>
#include "MQBErr.h"
#include "SenseParser.h"

// Descriptor rows: a descriptor to skip, then INFORMATION with VALID (byte 14) set, then clear.
TEST(SenseParser, FixedDescriptorAndUnknownFormats) {
    using Bytes = std::vector<unsigned char>;
    using Fields = std::tuple<int, int, int, int, int>;
    const struct { Bytes s; Fields want; Bytes info; } rows[] = {
        {{0xF0, 0, 0x03, 1, 2, 3, 4, 24, 0, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         {3, 0x11, 0, 1, 0x1234}, {0, 0, 0, 0, 1, 2, 3, 4}},
        {{0x71, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x21, 0x01, 0, 0, 0, 0}, {5, 0x21, 1, 0, 0}, Bytes(8, 0)},
        {{0x72, 0x04, 0x44, 0, 0, 0, 0, 16, 0x02, 0x02, 0, 0, 0x00, 0x0A, 0x80, 0, 0, 0, 0, 1, 0, 0, 0x10, 0x20},
         {4, 0x44, 0, 1, 0}, {0, 0, 0, 1, 0, 0, 0x10, 0x20}},
        {{0x72, 0x04, 0x44, 0, 0, 0, 0, 16, 0x02, 0x02, 0, 0, 0x00, 0x0A, 0x00, 0, 0, 0, 0, 1, 0, 0, 0x10, 0x20},
         {4, 0x44, 0, 0, 0}, {0, 0, 0, 1, 0, 0, 0x10, 0x20}},
        {{0x7F, 0, 0x03, 1, 2, 3, 4, 24, 0, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34}, {0, 0, 0, 0, 0}, {}},
    };
    for (const auto& r : rows) {
        const unsigned char* s = r.s.data();
        unsigned char k = 9, a = 9, q = 9, v = 9;
        unsigned short u = 9;
        const Fields got{SenseParser::getKey(s, &k), SenseParser::getCode(s, &a), SenseParser::getQual(s, &q),
                         SenseParser::getValidBit(s, &v), SenseParser::getUec(s, &u)};
        EXPECT_EQ(got, r.want) << int(s[0]);
        EXPECT_EQ(got, Fields(k, a, q, v, u)) << int(s[0]) << ": the out parameters";
        Bytes info(8, 0xAA);
        EXPECT_EQ(SenseParser::getInformationBytes(s, info.data()), r.info.empty() ? -1 : 0) << int(s[0]);
        EXPECT_EQ(info, r.info.empty() ? Bytes(8, 0xAA) : r.info) << int(s[0]);
    }
}

TEST(MQBErrText, EveryCodeAndUnknown) {
    const char* texts[] = {"Success", "General Failure", "Invalid Parameter", "No Device Selected",
        "Device Index Out Of Range", "Device Locked", "Queue Full", "No Command Outstanding", "Unknown IOCTL Code",
        "Bad Command Record", "Out Of Memory", "Unknown Driver", "I/O Error", "Format Error", "Command Timeout",
        "Device Busy", "Check Condition", "Transfer Length Too Large", "Not Supported"};
    for (int code = 0; code >= -18; --code) EXPECT_STREQ(MQBErr::errStr(code), texts[-code]) << code;
    for (int code : {-19, -111, 1, 100, -2147483647 - 1}) EXPECT_STREQ(MQBErr::errStr(code), "Unknown Status") << code;
}
