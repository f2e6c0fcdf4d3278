// SenseParser.h: reading fields out of SCSI sense data, fixed and descriptor format.
#pragma once
#include <cstdint>
#include "MQBExport.h"

// Fixed format (response code 0x70/0x71): key in byte 2 (low nibble), ASC byte 12,
// ASCQ byte 13, VALID bit 0x80 of byte 0, INFORMATION bytes 3-6. When the sense is
// 32 bytes long the 16-bit UEC sits in bytes 20-21, most significant first.
// Descriptor format (0x72/0x73): key byte 1, ASC byte 2, ASCQ byte 3; the
// INFORMATION descriptor (type 0x00) carries 8 bytes and its own VALID bit.
// Every getter writes its answer to `out` and also returns it; unknown formats
// give 0.
class MQB_API SenseParser {
public:
    static unsigned char  getKey(const unsigned char* sense, unsigned char* out);
    static unsigned char  getCode(const unsigned char* sense, unsigned char* out);
    static unsigned char  getQual(const unsigned char* sense, unsigned char* out);
    static unsigned short getUec(const unsigned char* sense, unsigned short* out);
    static unsigned char  getValidBit(const unsigned char* sense, unsigned char* out);
    // Writes the INFORMATION field into out[0..7], most significant byte first
    // (a fixed-format field fills bytes 4-7). Returns 0, or -1 for unknown format.
    static int getInformationBytes(const unsigned char* sense, unsigned char* out);
};
