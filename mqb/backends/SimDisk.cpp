// SimDisk.cpp: the simulated SCSI disk: range checks and sense for the SBC
// commands, READ CAPACITY(10), and the optional lazily allocated data store.
// Reads from the store land in the caller's buffer through relaxedCopy: the
// extension's loops share one read buffer.
#include "SimDisk.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include "DeviceText.h"
#include "MQBErr.h"
#include "RelaxedCopy.h"
#include "SimQueue.h"

namespace mqb {

namespace {

constexpr uint64_t kMaxBlocks = 1ULL << 48;
constexpr uint64_t kMaxBlockSize = 1ULL << 20;
constexpr uint64_t kMaxLatencyUs = 10000000;  // ten seconds
constexpr uint64_t kMaxTimeoutSec = 3600;     // an hour

// The options of a sim device text: each key's range and the field it sets.
struct SimKey {
    const char* key;
    uint64_t    lo, hi;
    void (*set)(SimConfig&, uint64_t);
};
const SimKey kSimKeys[] = {
    {"blocks", 1, kMaxBlocks, [](SimConfig& c, uint64_t v) { c.blocks = v; }},
    {"bs", 0, kMaxBlockSize, [](SimConfig& c, uint64_t v) { c.blockSize = uint32_t(v); }},
    {"lazybs", 0, 1, [](SimConfig& c, uint64_t v) { c.lazyBlockSize = v == 1; }},
    {"latency", 0, kMaxLatencyUs, [](SimConfig& c, uint64_t v) { c.latencyUs = uint32_t(v); }},
    {"store", 0, 1, [](SimConfig& c, uint64_t v) { c.store = v == 1; }},
    {"storemax", 0, UINT64_MAX, [](SimConfig& c, uint64_t v) { c.storeMax = v; }},
    {"timeout", 1, kMaxTimeoutSec, [](SimConfig& c, uint64_t v) { c.timeoutSec = uint32_t(v); }},
};

}  // namespace

bool parseSimConfig(const std::string& params, SimConfig& cfg, std::string& err) {
    return devtext::forEachOption(params, ',', err, [&](const std::string& key, const std::string& text) {
        for (const SimKey& k : kSimKeys) {
            if (key != k.key) continue;
            uint64_t v = 0;
            if (!devtext::number(key, text, k.lo, k.hi, v, err)) return false;
            k.set(cfg, v);
            return true;
        }
        err = devtext::unknownKey(key);
        return false;
    });
}

SimDisk::SimDisk(const SimConfig& cfg) : cfg_(cfg) {}

std::unique_ptr<Queue> SimDisk::openQueue(int depth, std::string&) {
    return std::make_unique<SimQueue>(*this, depth);
}

Geometry SimDisk::geometry() const {
    Geometry g;
    g.blocks = cfg_.blocks;
    g.blockSize = (cfg_.lazyBlockSize && !capacityKnown_.load(std::memory_order_relaxed))
                      ? 0 : cfg_.blockSize;
    return g;
}

// Carries out one command. Without a store, reads leave the caller's buffer
// untouched so the simulator costs nothing per byte.
void SimDisk::execute(const Command& c, Outcome& out) {
    out.status = MQB_OK;
    out.senseLen = 0;
    if (c.opcode == scsi::kReadCapacity10) {
        sbc::readCapacity(c, cfg_.blocks, cfg_.blockSize);
        return;
    }
    if (!sbc::isDataCommand(c.opcode)) {
        sbc::invalidOpcode(out);
        return;
    }
    if (!sbc::checkRange(c, cfg_.blocks, out)) return;
    if (!cfg_.store || cfg_.blockSize == 0 || c.tl == 0) return;
    if (c.opcode == scsi::kRead10 && c.readBuf) {
        storeRead(c.lba, c.tl, c.readBuf, c.readLen);
    } else if ((c.opcode == scsi::kWrite10 || c.opcode == scsi::kWriteVerify10) && c.writeBuf) {
        // Like a thin-provisioned disk out of space: the write fails whole or
        // in part, the disk stays usable.
        if (!storeWrite(c.lba, c.tl, c.writeBuf, c.writeLen))
            buildFixedSense(out, scsi::kKeyDataProtect, scsi::kSpaceAllocFailed, true, c.lba);
    }
}

namespace {

// Walks the bytes of up to `tl` blocks from `lba` (no more than `len`) in a
// store of `chunkBytes`-byte chunks: f(chunk, offset in it, bytes) for each
// piece in order, until f returns false. Returns false when it did.
template <typename F>
bool walkChunks(uint64_t bs, uint64_t chunkBytes, uint64_t lba, uint32_t tl, uint64_t len, F&& f) {
    uint64_t off = lba * bs, left = std::min<uint64_t>(len, uint64_t(tl) * bs);
    while (left > 0) {
        const uint64_t ci = off / chunkBytes, within = off % chunkBytes;
        const uint64_t n = std::min(left, chunkBytes - within);
        if (!f(ci, within, n)) return false;
        off += n;
        left -= n;
    }
    return true;
}

}  // namespace

// Copies up to tl blocks (bounded by the buffer length) into the store,
// allocating the chunks it touches for the first time. Returns false, having
// stored what fitted, when a chunk would take the store past storemax or
// cannot be allocated.
bool SimDisk::storeWrite(uint64_t lba, uint32_t tl, const uint8_t* src, uint64_t len) {
    const uint64_t chunkBytes = kChunkBlocks * cfg_.blockSize;
    std::lock_guard<std::mutex> g(storeLock_);
    return walkChunks(cfg_.blockSize, chunkBytes, lba, tl, len, [&](uint64_t ci, uint64_t within, uint64_t n) {
        auto it = chunks_.find(ci);
        if (it == chunks_.end()) {
            if (storeBytes_ + chunkBytes > cfg_.storeMax) return false;
            std::unique_ptr<uint8_t[]> fresh(new (std::nothrow) uint8_t[chunkBytes]);
            if (!fresh) return false;
            std::memset(fresh.get(), 0, chunkBytes);
            try {
                it = chunks_.emplace(ci, std::move(fresh)).first;
            } catch (const std::bad_alloc&) {
                return false;
            }
            storeBytes_ += chunkBytes;
        }
        std::memcpy(it->second.get() + within, src, n);
        src += n;
        return true;
    });
}

// Copies up to tl blocks (bounded by the buffer length) out of the store;
// blocks never written read as zeros.
void SimDisk::storeRead(uint64_t lba, uint32_t tl, uint8_t* dst, uint64_t len) {
    std::lock_guard<std::mutex> g(storeLock_);
    walkChunks(cfg_.blockSize, kChunkBlocks * cfg_.blockSize, lba, tl, len,
               [&](uint64_t ci, uint64_t within, uint64_t n) {
                   auto it = chunks_.find(ci);
                   if (it == chunks_.end())
                       relaxedZero(dst, n);
                   else
                       relaxedCopy(dst, it->second.get() + within, n);
                   dst += n;
                   return true;
               });
}

}  // namespace mqb
