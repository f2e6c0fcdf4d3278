// Crc32c.cpp: CRC32C by the SSE4.2 crc32 instruction when the CPU has it,
// else by slicing over eight 256-entry tables (built once, at first use).
#include "Crc32c.h"
#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#include <nmmintrin.h>
#endif

namespace mqb {

namespace {

constexpr uint32_t kPoly = 0x82F63B78u;  // reflected Castagnoli polynomial

struct Tables {
    uint32_t t[8][256];
    Tables() {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (kPoly & (0u - (c & 1u)));
            t[0][i] = c;
        }
        for (uint32_t i = 0; i < 256; ++i)
            for (int s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
    }
};

const Tables& tables() {
    static const Tables tb;
    return tb;
}

// Raw (no inversion) software update.
uint32_t softRaw(uint32_t c, const uint8_t* p, size_t n) {
    const Tables& tb = tables();
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        w ^= c;
        c = tb.t[7][w & 0xFF] ^ tb.t[6][(w >> 8) & 0xFF] ^ tb.t[5][(w >> 16) & 0xFF] ^
            tb.t[4][(w >> 24) & 0xFF] ^ tb.t[3][(w >> 32) & 0xFF] ^ tb.t[2][(w >> 40) & 0xFF] ^
            tb.t[1][(w >> 48) & 0xFF] ^ tb.t[0][w >> 56];
        p += 8;
        n -= 8;
    }
    while (n--) c = (c >> 8) ^ tb.t[0][(c ^ *p++) & 0xFF];
    return c;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t hardRaw(uint32_t c, const uint8_t* p, size_t n) {
    uint64_t c64 = c;
    while (n >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        c64 = _mm_crc32_u64(c64, w);
        p += 8;
        n -= 8;
    }
    uint32_t c32 = uint32_t(c64);
    while (n--) c32 = _mm_crc32_u8(c32, *p++);
    return c32;
}

bool haveSse42() {
    unsigned a, b, c, d;
    return __get_cpuid(1, &a, &b, &c, &d) && (c & bit_SSE4_2);
}
#endif

}  // namespace

uint32_t crc32cSoftware(uint32_t crc, const void* data, size_t len) {
    return ~softRaw(~crc, static_cast<const uint8_t*>(data), len);
}

uint32_t crc32c(uint32_t crc, const void* data, size_t len) {
#if defined(__x86_64__)
    static const bool hw = haveSse42();
    if (hw) return ~hardRaw(~crc, static_cast<const uint8_t*>(data), len);
#endif
    return crc32cSoftware(crc, data, len);
}

}  // namespace mqb
