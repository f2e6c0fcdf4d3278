// SenseTally.cpp: counting failed commands by their sense triple.
#include "channel/SenseTally.h"
#include "SenseParser.h"

namespace mqb {

void SenseTally::note(const uint8_t* sense, int len) {
    if (len < 4) return;
    SenseParser::Kcq kcq;
    const SenseParser::Format f = SenseParser::getKcq(sense, len, kcq);
    if (f != SenseParser::Format::Fixed && f != SenseParser::Format::Descriptor) return;
    const uint32_t k = 1u << 24 | uint32_t(kcq.key) << 16 | uint32_t(kcq.asc) << 8 | kcq.ascq;
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
