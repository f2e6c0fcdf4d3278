// SimDisk.h: the simulated SCSI disk, the reference backend. It answers the
// SBC commands the exerciser sends and optionally keeps written data.
#pragma once
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include "Backend.h"

namespace mqb {

struct SimConfig {
    uint64_t blocks = 2097152;
    uint32_t blockSize = 512;
    bool     lazyBlockSize = false;  // report 0 until READ CAPACITY(10) completed
    uint32_t latencyUs = 0;
    bool     store = false;          // keep written data
};

// Parses "k=v,k=v" (the part after "sim:") into `cfg`. Returns false with a
// message in `err` for an unknown key or a bad value.
bool parseSimConfig(const std::string& params, SimConfig& cfg, std::string& err);

class SimDisk : public Backend {
public:
    explicit SimDisk(const SimConfig& cfg);
    void execute(const Command& cmd, Outcome& out) override;
    Geometry geometry() const override;
    uint32_t latencyUs() const override { return cfg_.latencyUs; }
    void capacityRead() override { capacityKnown_.store(true, std::memory_order_relaxed); }
    const char* kind() const override { return "sim"; }

private:
    // Data store: blocks grouped in chunks, each allocated on first write.
    static constexpr uint64_t kChunkBlocks = 256;
    void storeWrite(uint64_t lba, uint32_t tl, const uint8_t* src, uint64_t len);
    void storeRead(uint64_t lba, uint32_t tl, uint8_t* dst, uint64_t len);

    SimConfig cfg_;
    std::atomic<bool> capacityKnown_{false};
    std::mutex storeLock_;
    std::unordered_map<uint64_t, std::unique_ptr<uint8_t[]>> chunks_;
};

}  // namespace mqb
