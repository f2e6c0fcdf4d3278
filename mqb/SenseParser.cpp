// SenseParser.cpp: reading key, codes, UEC and INFORMATION out of fixed and
// descriptor format sense data.
#include "SenseParser.h"
#include <cstring>

namespace {

enum class Format { Fixed, Descriptor, Unknown };

Format formatOf(const unsigned char* s) {
    if (!s) return Format::Unknown;
    switch (s[0] & 0x7F) {
    case 0x70: case 0x71: return Format::Fixed;
    case 0x72: case 0x73: return Format::Descriptor;
    default: return Format::Unknown;
    }
}

// The INFORMATION descriptor (type 0) of descriptor-format sense, or null.
// Descriptors start at byte 8 and run for the additional length in byte 7.
const unsigned char* infoDescriptor(const unsigned char* s) {
    const int end = 8 + s[7];
    int p = 8;
    while (p + 2 <= end) {
        const int len = s[p + 1];
        if (s[p] == 0x00 && len >= 10 && p + 2 + len <= end) return s + p;
        p += 2 + len;
    }
    return nullptr;
}

}  // namespace

// One byte of the sense: at `fixedAt` in fixed format or `descAt` in
// descriptor format, masked; 0 for a format it does not know. Also stored in
// `out` when given.
static unsigned char senseByte(const unsigned char* sense, int fixedAt, int descAt,
                               unsigned char mask, unsigned char* out) {
    unsigned char v = 0;
    switch (formatOf(sense)) {
    case Format::Fixed: v = sense[fixedAt] & mask; break;
    case Format::Descriptor: v = sense[descAt] & mask; break;
    case Format::Unknown: break;
    }
    if (out) *out = v;
    return v;
}

unsigned char SenseParser::getKey(const unsigned char* sense, unsigned char* out) {
    return senseByte(sense, 2, 1, 0x0F, out);
}

unsigned char SenseParser::getCode(const unsigned char* sense, unsigned char* out) {
    return senseByte(sense, 12, 2, 0xFF, out);
}

unsigned char SenseParser::getQual(const unsigned char* sense, unsigned char* out) {
    return senseByte(sense, 13, 3, 0xFF, out);
}

// The UEC lives only in long (32-byte) fixed-format sense; the additional
// length in byte 7 says whether bytes 20-21 are there.
unsigned short SenseParser::getUec(const unsigned char* sense, unsigned short* out) {
    unsigned short v = 0;
    if (formatOf(sense) == Format::Fixed && sense[7] >= 14)
        v = (unsigned short)((sense[20] << 8) | sense[21]);
    if (out) *out = v;
    return v;
}

unsigned char SenseParser::getValidBit(const unsigned char* sense, unsigned char* out) {
    unsigned char v = 0;
    switch (formatOf(sense)) {
    case Format::Fixed: v = (sense[0] & 0x80) ? 1 : 0; break;
    case Format::Descriptor: {
        const unsigned char* d = infoDescriptor(sense);
        v = (d && (d[2] & 0x80)) ? 1 : 0;
        break;
    }
    case Format::Unknown: break;
    }
    if (out) *out = v;
    return v;
}

int SenseParser::getInformationBytes(const unsigned char* sense, unsigned char* out) {
    switch (formatOf(sense)) {
    case Format::Fixed:
        if (out) {
            std::memset(out, 0, 4);
            std::memcpy(out + 4, sense + 3, 4);
        }
        return 0;
    case Format::Descriptor: {
        const unsigned char* d = infoDescriptor(sense);
        if (out) {
            if (d) std::memcpy(out, d + 4, 8);
            else std::memset(out, 0, 8);
        }
        return 0;
    }
    case Format::Unknown:
        break;
    }
    return -1;
}
