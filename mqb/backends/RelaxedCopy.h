// RelaxedCopy.h: copies into buffers that other threads may be writing at the
// same moment (the extension's one read buffer is shared by every loop, on
// purpose: its contents are never examined). Relaxed atomic stores cost what
// plain stores do and make such overlapping copies well defined.
#pragma once
#include <cstdint>
#include <cstring>

namespace mqb {

// Copies `n` bytes from `src` into `dst`: whole aligned words where it can,
// single bytes around them.
inline void relaxedCopy(uint8_t* dst, const uint8_t* src, uint64_t n) {
    while (n > 0 && (reinterpret_cast<uintptr_t>(dst) & 7) != 0) {
        __atomic_store_n(dst++, *src++, __ATOMIC_RELAXED);
        --n;
    }
    for (; n >= 8; n -= 8, dst += 8, src += 8) {
        uint64_t w;
        std::memcpy(&w, src, 8);
        __atomic_store_n(reinterpret_cast<uint64_t*>(dst), w, __ATOMIC_RELAXED);
    }
    while (n-- > 0) __atomic_store_n(dst++, *src++, __ATOMIC_RELAXED);
}

// Zeroes `n` bytes of `dst` the same way.
inline void relaxedZero(uint8_t* dst, uint64_t n) {
    while (n > 0 && (reinterpret_cast<uintptr_t>(dst) & 7) != 0) {
        __atomic_store_n(dst++, uint8_t(0), __ATOMIC_RELAXED);
        --n;
    }
    for (; n >= 8; n -= 8, dst += 8)
        __atomic_store_n(reinterpret_cast<uint64_t*>(dst), uint64_t(0), __ATOMIC_RELAXED);
    while (n-- > 0) __atomic_store_n(dst++, uint8_t(0), __ATOMIC_RELAXED);
}

}  // namespace mqb
