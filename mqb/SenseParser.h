// SenseParser.h: reading fields out of SCSI sense data, fixed and descriptor format.
#pragma once
#include <cstdint>
#include "MQBExport.h"
#include "Scsi.h"

// Fixed format (response code 0x70/0x71): key in byte 2 (low nibble), ASC byte 12,
// ASCQ byte 13, VALID bit 0x80 of byte 0, INFORMATION bytes 3-6. When the sense is
// 32 bytes long the 16-bit UEC sits in bytes 20-21, most significant first.
// Descriptor format (0x72/0x73): key byte 1, ASC byte 2, ASCQ byte 3; the
// INFORMATION descriptor (type 0x00) carries 8 bytes and its own VALID bit;
// the UEC, when there, is in bytes 2-3 of our vendor descriptor (type 0x80).
// Every getter writes its answer to `out` and also returns it; no sense and
// unknown formats give 0 (format() tells them apart from NO SENSE).
//
// `length` is how many sense bytes the caller holds; no getter reads past it,
// whatever the additional length in byte 7 claims. A field that lies beyond it
// reads as 0. Without it, the largest sense a device gives (kMaxSense) is taken.
class MQB_API SenseParser {
public:
    static constexpr int kMaxSense = scsi::kMaxSense;

    // What the sense is: none (no bytes held), fixed, descriptor, or a
    // response code this parser does not know.
    enum class Format { None, Fixed, Descriptor, Unknown };
    static Format format(const unsigned char* sense, int length = kMaxSense);

    // Sense key, additional sense code and qualifier at once.
    struct Kcq {
        unsigned char key = 0, asc = 0, ascq = 0;
    };
    // Fills `out` (zeros for what `length` does not hold, and for no sense or
    // an unknown format) and returns the format.
    static Format getKcq(const unsigned char* sense, int length, Kcq& out);

    static unsigned char  getKey(const unsigned char* sense, unsigned char* out,
                                 int length = kMaxSense);
    static unsigned char  getCode(const unsigned char* sense, unsigned char* out,
                                  int length = kMaxSense);
    static unsigned char  getQual(const unsigned char* sense, unsigned char* out,
                                  int length = kMaxSense);
    static unsigned short getUec(const unsigned char* sense, unsigned short* out,
                                 int length = kMaxSense);
    static unsigned char  getValidBit(const unsigned char* sense, unsigned char* out,
                                      int length = kMaxSense);
    // Writes the INFORMATION field into out[0..7], most significant byte first
    // (a fixed-format field fills bytes 4-7). Returns 0, or -1 for unknown format.
    static int getInformationBytes(const unsigned char* sense, unsigned char* out,
                                   int length = kMaxSense);
};
