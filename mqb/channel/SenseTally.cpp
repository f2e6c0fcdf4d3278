// SenseTally.cpp: counting failed commands by their sense triple.
#include "channel/SenseTally.h"
#include "SenseParser.h"

namespace mqb {

void SenseTally::note(const uint8_t* sense, int len) {
    if (len < 4) return;
    unsigned char key, asc, ascq;
    const int code = sense[0] & 0x7F;
    // Fixed format needs byte 2 at least; descriptor format bytes 1-3.
    if (code != 0x70 && code != 0x71 && code != 0x72 && code != 0x73) return;
    SenseParser::getKey(sense, &key, len);
    SenseParser::getCode(sense, &asc, len);
    SenseParser::getQual(sense, &ascq, len);
    const uint32_t k = 1u << 24 | uint32_t(key) << 16 | uint32_t(asc) << 8 | ascq;
    for (Slot& s : slots_) {
        const uint32_t have = s.key.load(std::memory_order_relaxed);
        if (have == k) {
            s.count.store(s.count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            return;
        }
        if (have == 0) {
            s.count.store(s.count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            s.key.store(k, std::memory_order_release);
            return;
        }
    }
}

}  // namespace mqb
