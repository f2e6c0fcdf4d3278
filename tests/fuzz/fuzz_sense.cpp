// fuzz_sense.cpp: libFuzzer target for SenseParser. The input is the sense
// data, copied to a buffer of exactly its size so that any read past the held
// length is caught; a fixed-format INFORMATION field must come back in place.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "SenseParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    std::unique_ptr<unsigned char[]> held(new unsigned char[size ? size : 1]);
    if (size) std::memcpy(held.get(), data, size);
    const unsigned char* s = held.get();
    const int len = (int)size;
    unsigned char k = 0, a = 0, q = 0, v = 0, info[8] = {0};
    unsigned short u = 0;
    SenseParser::getKey(s, &k, len);
    SenseParser::getCode(s, &a, len);
    SenseParser::getQual(s, &q, len);
    SenseParser::getUec(s, &u, len);
    SenseParser::getValidBit(s, &v, len);
    int rc = SenseParser::getInformationBytes(s, info, len);
    if (k > 0x0F || v > 1) __builtin_trap();
    if (rc == 0 && size >= 7 && ((s[0] & 0x7F) == 0x70 || (s[0] & 0x7F) == 0x71) &&
        std::memcmp(info + 4, s + 3, 4) != 0)
        __builtin_trap();
    return 0;
}
