// SenseParser.cpp: reading key, codes, UEC and INFORMATION out of fixed and
// descriptor format sense data, never past the length the caller holds.
#include "SenseParser.h"
#include <cstring>

using Format = SenseParser::Format;

SenseParser::Format SenseParser::format(const unsigned char* s, int len) {
    if (!s || len < 1) return Format::None;
    switch (s[0] & 0x7F) {
    case 0x70: case 0x71: return Format::Fixed;
    case 0x72: case 0x73: return Format::Descriptor;
    default: return Format::Unknown;
    }
}

namespace {

Format formatOf(const unsigned char* s, int len) { return SenseParser::format(s, len); }

// The descriptor of `type` with at least `minLen` bytes after its two-byte
// header in descriptor-format sense, or null. Descriptors start at byte 8 and
// run for the additional length in byte 7, cut to the `len` bytes held: a
// descriptor must lie wholly inside both.
const unsigned char* findDescriptor(const unsigned char* s, int len, unsigned char type,
                                    int minLen) {
    if (len < 8) return nullptr;
    int end = 8 + s[7];
    if (end > len) end = len;
    int p = 8;
    while (p + 2 <= end) {
        const int dlen = s[p + 1];
        if (s[p] == type && dlen >= minLen && p + 2 + dlen <= end) return s + p;
        p += 2 + dlen;
    }
    return nullptr;
}

// The INFORMATION descriptor (type 0) of descriptor-format sense, or null.
const unsigned char* infoDescriptor(const unsigned char* s, int len) {
    return findDescriptor(s, len, 0x00, 10);
}

// One byte of the sense: at `fixedAt` in fixed format or `descAt` in
// descriptor format, masked; 0 for a format it does not know or a byte past
// `len`. Also stored in `out` when given.
unsigned char senseByte(const unsigned char* sense, int len, int fixedAt, int descAt,
                        unsigned char mask, unsigned char* out) {
    unsigned char v = 0;
    switch (formatOf(sense, len)) {
    case Format::Fixed: v = fixedAt < len ? sense[fixedAt] & mask : 0; break;
    case Format::Descriptor: v = descAt < len ? sense[descAt] & mask : 0; break;
    case Format::None: case Format::Unknown: break;
    }
    if (out) *out = v;
    return v;
}

}  // namespace

SenseParser::Format SenseParser::getKcq(const unsigned char* sense, int length, Kcq& out) {
    getKey(sense, &out.key, length);
    getCode(sense, &out.asc, length);
    getQual(sense, &out.ascq, length);
    return formatOf(sense, length);
}

unsigned char SenseParser::getKey(const unsigned char* sense, unsigned char* out, int length) {
    return senseByte(sense, length, 2, 1, 0x0F, out);
}

unsigned char SenseParser::getCode(const unsigned char* sense, unsigned char* out, int length) {
    return senseByte(sense, length, 12, 2, 0xFF, out);
}

unsigned char SenseParser::getQual(const unsigned char* sense, unsigned char* out, int length) {
    return senseByte(sense, length, 13, 3, 0xFF, out);
}

// The UEC lives in long (32-byte) fixed-format sense, where the additional
// length in byte 7 says whether bytes 20-21 are there (they must also lie
// inside what the caller holds), or in our vendor descriptor (0x80).
unsigned short SenseParser::getUec(const unsigned char* sense, unsigned short* out, int length) {
    unsigned short v = 0;
    const Format f = formatOf(sense, length);
    if (f == Format::Fixed && length >= 22 && sense[7] >= 14) {
        v = (unsigned short)((sense[20] << 8) | sense[21]);
    } else if (f == Format::Descriptor) {
        if (const unsigned char* d = findDescriptor(sense, length, 0x80, 2))
            v = (unsigned short)((d[2] << 8) | d[3]);
    }
    if (out) *out = v;
    return v;
}

unsigned char SenseParser::getValidBit(const unsigned char* sense, unsigned char* out,
                                       int length) {
    unsigned char v = 0;
    switch (formatOf(sense, length)) {
    case Format::Fixed: v = (sense[0] & 0x80) ? 1 : 0; break;
    case Format::Descriptor: {
        const unsigned char* d = infoDescriptor(sense, length);
        v = (d && (d[2] & 0x80)) ? 1 : 0;
        break;
    }
    case Format::None: case Format::Unknown: break;
    }
    if (out) *out = v;
    return v;
}

// A fixed-format field cut short by `length` reads as zeros.
int SenseParser::getInformationBytes(const unsigned char* sense, unsigned char* out,
                                     int length) {
    switch (formatOf(sense, length)) {
    case Format::Fixed:
        if (out) {
            std::memset(out, 0, 8);
            if (length >= 7) std::memcpy(out + 4, sense + 3, 4);
        }
        return 0;
    case Format::Descriptor: {
        const unsigned char* d = infoDescriptor(sense, length);
        if (out) {
            if (d) std::memcpy(out, d + 4, 8);
            else std::memset(out, 0, 8);
        }
        return 0;
    }
    case Format::None: case Format::Unknown:
        break;
    }
    return -1;
}
