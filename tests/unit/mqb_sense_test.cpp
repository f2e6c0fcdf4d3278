// mqb_sense_test.cpp: sense data parsing in both formats, and the status texts.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <memory>
#include <vector>
#include "MQBErr.h"
#include "SenseParser.h"

// Descriptor rows: a descriptor to skip, then INFORMATION with VALID (byte 14)
// set and our UEC descriptor (80h), then VALID clear.
TEST(SenseParser, FixedDescriptorAndUnknownFormats) {
    using Bytes = std::vector<unsigned char>;
    using Fields = std::tuple<int, int, int, int, int>;
    const struct { Bytes s; Fields want; Bytes info; } rows[] = {
        {{0xF0, 0, 0x03, 1, 2, 3, 4, 24, 0, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         {3, 0x11, 0, 1, 0x1234}, {0, 0, 0, 0, 1, 2, 3, 4}},
        {{0x71, 0, 0x05, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x21, 0x01, 0, 0, 0, 0}, {5, 0x21, 1, 0, 0}, Bytes(8, 0)},
        {{0x72, 0x04, 0x44, 0, 0, 0, 0, 28, 0x02, 0x02, 0, 0, 0x00, 0x0A, 0x80, 0, 0, 0, 0, 1, 0, 0, 0x10, 0x20,
          0x80, 0x0A, 0x12, 0x34, 0, 0, 0, 0, 0, 0, 0, 0},
         {4, 0x44, 0, 1, 0x1234}, {0, 0, 0, 1, 0, 0, 0x10, 0x20}},
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
        // An unknown response code reads as zeros, like NO SENSE, but says so.
        const int code = s[0] & 0x7F;
        EXPECT_EQ(SenseParser::format(s), code == 0x7F ? SenseParser::Format::Unknown
                                          : code >= 0x72 ? SenseParser::Format::Descriptor
                                                         : SenseParser::Format::Fixed) << code;
    }
    EXPECT_EQ(SenseParser::format(rows[0].s.data(), 0), SenseParser::Format::None);
    EXPECT_EQ(SenseParser::format(nullptr, 18), SenseParser::Format::None);
}

// Each getter stays inside the length it is given, whatever byte 7 claims:
// every prefix of a fixed and a descriptor sense, copied to a buffer of exactly
// that size (the sanitizer builds catch a read past it), gives either the
// field or 0; a descriptor that would run past the held bytes is not found.
TEST(SenseParser, NeverReadsPastTheHeldLength) {
    using Bytes = std::vector<unsigned char>;
    const Bytes fixed = {0xF0, 0, 0x03, 1, 2, 3, 4, 0xFF, 0, 0, 0, 0, 0x11, 0x05, 0, 0,
                         0, 0, 0, 0, 0x12, 0x34};
    const Bytes desc = {0x72, 0x03, 0x11, 0x05, 0, 0, 0, 0xFF, 0x02, 0x02, 0, 0,
                        0x00, 0x0A, 0x80, 0, 0, 0, 0, 1, 0, 0, 0x10, 0x20};
    for (const Bytes* full : {&fixed, &desc}) {
        for (size_t n = 0; n <= full->size(); ++n) {
            std::unique_ptr<unsigned char[]> held(new unsigned char[n ? n : 1]);
            std::copy(full->begin(), full->begin() + n, held.get());
            const unsigned char* s = held.get();
            const int len = (int)n;
            unsigned char k = 0, a = 0, q = 0, v = 0, info[8] = {0};
            unsigned short u = 0;
            SenseParser::getKey(s, &k, len), SenseParser::getCode(s, &a, len);
            SenseParser::getQual(s, &q, len), SenseParser::getValidBit(s, &v, len);
            SenseParser::getUec(s, &u, len);
            SenseParser::getInformationBytes(s, info, len);
            const bool isFixed = full == &fixed;
            EXPECT_EQ(k, n > (isFixed ? 2u : 1u) ? 3 : 0) << n;
            EXPECT_EQ(a, n > (isFixed ? 12u : 2u) ? 0x11 : 0) << n;
            EXPECT_EQ(q, n > (isFixed ? 13u : 3u) ? 0x05 : 0) << n;
            EXPECT_EQ(u, isFixed && n >= 22 ? 0x1234 : 0) << n;
            // The INFORMATION descriptor needs all its 12 bytes (8 to 23) held.
            EXPECT_EQ(v, isFixed ? (n >= 1) : (n >= 24)) << n;
            EXPECT_EQ(info[7], isFixed ? (n >= 7 ? 4 : 0) : (n >= 24 ? 0x20 : 0)) << n;
        }
    }
}

// Every code from MQB_OK to the last has a text of its own; the codes around
// them are unknown.
TEST(MQBErrText, EveryCodeHasItsOwnTextAndOthersAreUnknown) {
    std::set<std::string> seen;
    for (int code = MQB_OK; code >= MQB_ERR_NO_QUEUE; --code) {
        const std::string t = MQBErr::errStr(code);
        EXPECT_NE(t, "Unknown Status") << code;
        EXPECT_TRUE(seen.insert(t).second) << code << " repeats " << t;
    }
    EXPECT_STREQ(MQBErr::errStr(MQB_ERR_NO_MEMORY), "Out Of Memory");
    EXPECT_STREQ(MQBErr::errStr(MQB_ERR_NO_QUEUE), "Cannot Open Device Queue");
    for (int code : {MQB_ERR_NO_QUEUE - 1, -111, 1, 100, -2147483647 - 1})
        EXPECT_STREQ(MQBErr::errStr(code), "Unknown Status") << code;
}
