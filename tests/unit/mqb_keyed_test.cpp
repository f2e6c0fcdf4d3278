// mqb_keyed_test.cpp: CRC32C against the published iSCSI vectors, and what the
// keyed-block check makes of good, misplaced, damaged, torn and blank blocks.
#include <gtest/gtest.h>
#include <cstring>
#include <vector>
#include "verify/Crc32c.h"
#include "verify/KeyedBlock.h"

namespace {
using Bytes = std::vector<uint8_t>;
}

// RFC 3720 B.4 test vectors, through both paths and chained in uneven pieces.
TEST(Crc32c, MatchesTheIscsiVectorsInBothPathsAndWhenChained) {
    Bytes zeros(32, 0), ones(32, 0xFF), inc(32), dec(32);
    for (int i = 0; i < 32; ++i) inc[size_t(i)] = uint8_t(i), dec[size_t(i)] = uint8_t(31 - i);
    const Bytes pdu = {0x01, 0xC0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x14, 0, 0, 0, 0, 0, 0x04, 0,
                       0, 0, 0, 0x14, 0, 0, 0, 0x18, 0x28, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0};
    const struct { const Bytes& data; uint32_t crc; } cases[] = {
        {zeros, 0x8A9136AAu}, {ones, 0x62A8AB43u}, {inc, 0x46DD794Eu}, {dec, 0x113FDB5Cu}, {pdu, 0xD9963A56u}};
    for (const auto& k : cases) {
        EXPECT_EQ(mqb::crc32c(0, k.data.data(), k.data.size()), k.crc);
        EXPECT_EQ(mqb::crc32cSoftware(0, k.data.data(), k.data.size()), k.crc);
        uint32_t c = mqb::crc32c(0, k.data.data(), 3);
        c = mqb::crc32c(c, k.data.data() + 3, 17);
        EXPECT_EQ(mqb::crc32c(c, k.data.data() + 20, k.data.size() - 20), k.crc);
    }
}

TEST(KeyedBlock, GoodBlocksGiveTheirSequenceAndEveryDamageIsCaught) {
    for (uint32_t bs : {64u, 512u, 520u, 4096u}) {
        Bytes a(bs), b(bs);
        mqb::stampBlock(a.data(), bs, 1234, 77);
        mqb::stampBlock(b.data(), bs, 1234, 78);
        uint64_t seq = 0;
        EXPECT_EQ(mqb::checkBlock(a.data(), bs, 1234, seq), mqb::BlockCheck::Good) << bs;
        EXPECT_EQ(seq, 77u);
        EXPECT_NE(std::memcmp(a.data() + 32, b.data() + 32, bs - 32), 0) << "payload follows the sequence";
        EXPECT_EQ(mqb::checkBlock(a.data(), bs, 1235, seq), mqb::BlockCheck::WrongLba) << bs;

        // One flipped bit anywhere after the magic, a zeroed block (torn
        // blocks: data-4.2 in tests/tcl).
        for (uint32_t at : {8u, 20u, 24u, 29u, 40u, bs - 1}) {
            Bytes c = a;
            c[at] ^= 0x10;
            EXPECT_EQ(mqb::checkBlock(c.data(), bs, 1234, seq), mqb::BlockCheck::BadCrc) << bs << " byte " << at;
        }
        EXPECT_EQ(mqb::checkBlock(Bytes(bs, 0).data(), bs, 1234, seq), mqb::BlockCheck::Unstamped);
    }
    Bytes small(32, 0);
    uint64_t seq = 0;
    EXPECT_EQ(mqb::checkBlock(small.data(), 32, 0, seq), mqb::BlockCheck::Unstamped) << "too small to carry a key";
}
