// Scsi.h: the SCSI constants the device library and the extension share
// (operation codes, status bytes, sense keys, the additional sense codes we
// produce) and the big-endian loads and stores CDBs and sense are made of.
#pragma once
#include <cstdint>

namespace scsi {

// Operation codes (SPC/SBC).
constexpr uint8_t kReadCapacity10 = 0x25;
constexpr uint8_t kRead10 = 0x28;
constexpr uint8_t kWrite10 = 0x2A;
constexpr uint8_t kWriteVerify10 = 0x2E;
constexpr uint8_t kVerify10 = 0x2F;
constexpr uint8_t kRead16 = 0x88;
constexpr uint8_t kWrite16 = 0x8A;
constexpr uint8_t kWriteVerify16 = 0x8E;
constexpr uint8_t kVerify16 = 0x8F;
constexpr uint8_t kServiceActionIn16 = 0x9E;  // READ CAPACITY(16) is its action 0x10
constexpr uint8_t kSaReadCapacity16 = 0x10;

// BYTCHK: byte 1 bit 1 of WRITE AND VERIFY and VERIFY, 10- and 16-byte alike.
constexpr uint8_t kBytchk = 0x02;

// Status bytes (SAM), reserved bits masked off.
constexpr uint8_t kStatusGood = 0x00;
constexpr uint8_t kStatusCheck = 0x02;
constexpr uint8_t kStatusBusy = 0x08;
constexpr uint8_t kStatusReservationConflict = 0x18;
constexpr uint8_t kStatusTaskSetFull = 0x28;

// Sense keys.
constexpr uint8_t kKeyRecovered = 0x01;
constexpr uint8_t kKeyNotReady = 0x02;
constexpr uint8_t kKeyMedium = 0x03;
constexpr uint8_t kKeyIllegalRequest = 0x05;
constexpr uint8_t kKeyUnitAttention = 0x06;
constexpr uint8_t kKeyDataProtect = 0x07;
constexpr uint8_t kKeyMiscompare = 0x0E;

// Additional sense code and qualifier pairs we answer with.
struct Asc {
    uint8_t asc, ascq;
};
constexpr Asc kWriteError{0x0C, 0x00};
constexpr Asc kUnrecoveredRead{0x11, 0x00};
constexpr Asc kMiscompareVerify{0x1D, 0x00};
constexpr Asc kInvalidOpcode{0x20, 0x00};
constexpr Asc kLbaOutOfRange{0x21, 0x00};
constexpr Asc kWriteProtected{0x27, 0x00};
constexpr Asc kSpaceAllocFailed{0x27, 0x07};

// Sense sizes: the short fixed form, ours (fixed, with the vendor UEC), and
// the largest a device may send (SPC's limit, in fixed or descriptor format).
constexpr int kShortSense = 18;
constexpr int kLongSense = 32;
constexpr int kMaxSense = 252;

inline uint16_t be16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint64_t be64(const uint8_t* p) { return (uint64_t(be32(p)) << 32) | be32(p + 4); }

inline void putBe16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
inline void putBe64(uint8_t* p, uint64_t v) {
    putBe32(p, uint32_t(v >> 32));
    putBe32(p + 4, uint32_t(v));
}

}  // namespace scsi
