// Crc32c.h: CRC32C (Castagnoli polynomial, as iSCSI and ext4 use it) over a
// byte range, with the SSE4.2 instruction where the CPU has it and an
// eight-table software path elsewhere. Both give the same value.
#pragma once
#include <cstddef>
#include <cstdint>

namespace mqb {

// Extends `crc` (0 to start) over `len` bytes at `data` and returns the new
// value; the usual pre- and post-inversion is done inside, so chaining calls
// over consecutive pieces gives the CRC of the whole.
uint32_t crc32c(uint32_t crc, const void* data, size_t len);

// The software path alone, for checking the hardware one against it.
uint32_t crc32cSoftware(uint32_t crc, const void* data, size_t len);

}  // namespace mqb
