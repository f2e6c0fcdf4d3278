// KeyedBlock.cpp: stamping and checking keyed blocks.
#include "KeyedBlock.h"
#include <cstring>
#include "Crc32c.h"

namespace mqb {

namespace {

constexpr uint32_t kOffMagic = 0, kOffLba = 8, kOffSeq = 16, kOffCrc = 24, kOffBs = 28;
constexpr uint32_t kHeader = 32;

void put64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }
void put32(uint8_t* p, uint32_t v) { std::memcpy(p, &v, 4); }
uint64_t get64(const uint8_t* p) { uint64_t v; std::memcpy(&v, p, 8); return v; }
uint32_t get32(const uint8_t* p) { uint32_t v; std::memcpy(&v, p, 4); return v; }

// CRC of the block with its CRC field left out.
uint32_t blockCrc(const uint8_t* b, uint32_t bs) {
    const uint32_t c = crc32c(0, b, kOffCrc);
    return crc32c(c, b + kOffBs, bs - kOffBs);
}

// splitmix64: turns (lba, seq) into a well-mixed PRNG seed.
uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

}  // namespace

void stampBlock(uint8_t* b, uint32_t bs, uint64_t lba, uint64_t seq) {
    put64(b + kOffMagic, kKeyedMagic);
    put64(b + kOffLba, lba);
    put64(b + kOffSeq, seq);
    put32(b + kOffCrc, 0);
    put32(b + kOffBs, bs);
    // xorshift64 over the body, eight bytes at a time; a short tail takes the
    // low bytes of one more word.
    uint64_t s = mix(lba ^ mix(seq)) | 1;
    uint32_t off = kHeader;
    for (; off + 8 <= bs; off += 8) {
        s ^= s << 13, s ^= s >> 7, s ^= s << 17;
        put64(b + off, s);
    }
    if (off < bs) {
        s ^= s << 13, s ^= s >> 7, s ^= s << 17;
        std::memcpy(b + off, &s, bs - off);
    }
    put32(b + kOffCrc, blockCrc(b, bs));
}

BlockCheck checkBlock(const uint8_t* b, uint32_t bs, uint64_t lba, uint64_t& seq) {
    if (bs < kKeyedMinBlock || get64(b + kOffMagic) != kKeyedMagic) return BlockCheck::Unstamped;
    if (get32(b + kOffBs) != bs || get32(b + kOffCrc) != blockCrc(b, bs)) return BlockCheck::BadCrc;
    if (get64(b + kOffLba) != lba) return BlockCheck::WrongLba;
    seq = get64(b + kOffSeq);
    return BlockCheck::Good;
}

}  // namespace mqb
