// KeyedBlock.h: the self-describing block the library writes under the keyed
// compare data mode. The first 32 bytes are a header (magic, LBA, write
// sequence, CRC32C of the whole block, block size); the rest is pseudo-random
// data seeded by LBA and sequence, so a block torn between two writes fails
// its CRC. All integers little-endian.
#pragma once
#include <cstdint>

namespace mqb {

// Smallest block that carries a header and some seeded data.
constexpr uint32_t kKeyedMinBlock = 64;
constexpr uint64_t kKeyedMagic = 0x3130594B4B564B49ULL;  // "IKVKKY01" in memory order

// Fills one block of `bs` bytes (>= kKeyedMinBlock) for `lba`, written with
// device sequence `seq`.
void stampBlock(uint8_t* block, uint32_t bs, uint64_t lba, uint64_t seq);

enum class BlockCheck {
    Unstamped,  // no magic: not written in this mode (or overwritten / zeroed)
    Good,       // magic, right LBA and block size, CRC matches; `seq` is set
    WrongLba,   // a valid block of another LBA (misdirected write or read)
    BadCrc,     // magic present but the contents do not match their CRC
};

// Checks one block read back from `lba`. Sets `seq` for a Good block.
BlockCheck checkBlock(const uint8_t* block, uint32_t bs, uint64_t lba, uint64_t& seq);

}  // namespace mqb
