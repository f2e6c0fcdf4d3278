// SimDisk.h: the simulated SCSI disk, the reference backend. It answers the
// SBC commands the exerciser sends and optionally keeps written data; its
// queues (SimQueue) add the configured latency.
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
    uint64_t storeMax = 1ULL << 30;  // bytes the store may hold
    uint32_t timeoutSec = Backend::kDefaultCommandTimeoutSec;  // command time-out
};

// Parses "k=v,k=v" (the part after "sim:") into `cfg`. Returns false with a
// message in `err` for an unknown key or a bad value.
bool parseSimConfig(const std::string& params, SimConfig& cfg, std::string& err);

class SimDisk : public Backend {
public:
    explicit SimDisk(const SimConfig& cfg);
    std::unique_ptr<Queue> openQueue(int depth, std::string& err) override;
    const char* queueKind() const override { return "sim"; }
    Geometry geometry() const override;
    // With lazybs=1: a READ CAPACITY(10) has completed (its queue reaped it
    // with GOOD status), so geometry() reports the block size from now on.
    void capacityRead() { capacityKnown_.store(true, std::memory_order_relaxed); }
    const char* kind() const override { return "sim"; }
    uint32_t commandTimeoutSec() const override { return cfg_.timeoutSec; }

    // Carries out one command at once into `out` (the queue adds the latency).
    // Safe from several threads.
    void execute(const Command& cmd, Outcome& out);
    uint32_t latencyUs() const { return cfg_.latencyUs; }

private:
    // Data store: blocks grouped in chunks, each allocated on first write,
    // never freed while the disk lives.
    static constexpr uint64_t kChunkBlocks = 256;
    bool storeWrite(uint64_t lba, uint32_t tl, const uint8_t* src, uint64_t len);
    void storeRead(uint64_t lba, uint32_t tl, uint8_t* dst, uint64_t len);

    SimConfig cfg_;
    std::atomic<bool> capacityKnown_{false};
    std::mutex storeLock_;
    uint64_t storeBytes_ = 0;  // bytes of chunks allocated; storeLock_ held
    std::unordered_map<uint64_t, std::unique_ptr<uint8_t[]>> chunks_;
};

}  // namespace mqb
