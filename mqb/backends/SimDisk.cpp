// SimDisk.cpp: the simulated SCSI disk: range checks and sense for the SBC
// commands, READ CAPACITY(10), and the optional lazily allocated data store.
#include "SimDisk.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include "MQBErr.h"

namespace mqb {

namespace {

constexpr uint64_t kMaxBlocks = 1ULL << 48;
constexpr uint64_t kMaxBlockSize = 1ULL << 20;
constexpr uint64_t kMaxLatencyUs = 10000000;  // ten seconds

// Parses a whole decimal or 0x-prefixed number; false on junk or overflow.
bool parseNumber(const std::string& s, uint64_t& v) {
    if (s.empty() || s[0] == '-' || s[0] == '+') return false;
    errno = 0;
    char* end = nullptr;
    unsigned long long r = std::strtoull(s.c_str(), &end, 0);
    if (errno != 0 || end == s.c_str() || *end != '\0') return false;
    v = r;
    return true;
}

}  // namespace

bool parseSimConfig(const std::string& params, SimConfig& cfg, std::string& err) {
    size_t pos = 0;
    while (pos < params.size()) {
        size_t comma = params.find(',', pos);
        if (comma == std::string::npos) comma = params.size();
        std::string item = params.substr(pos, comma - pos);
        pos = comma + 1;
        if (item.empty()) continue;
        size_t eq = item.find('=');
        if (eq == std::string::npos) {
            err = "device spec item \"" + item + "\" is not key=value";
            return false;
        }
        std::string key = item.substr(0, eq), text = item.substr(eq + 1);
        uint64_t v = 0;
        bool ok = parseNumber(text, v);
        if (key == "blocks") {
            ok = ok && v >= 1 && v <= kMaxBlocks;
            if (ok) cfg.blocks = v;
        } else if (key == "bs") {
            ok = ok && v <= kMaxBlockSize;
            if (ok) cfg.blockSize = uint32_t(v);
        } else if (key == "lazybs") {
            ok = ok && v <= 1;
            if (ok) cfg.lazyBlockSize = v == 1;
        } else if (key == "latency") {
            ok = ok && v <= kMaxLatencyUs;
            if (ok) cfg.latencyUs = uint32_t(v);
        } else if (key == "store") {
            ok = ok && v <= 1;
            if (ok) cfg.store = v == 1;
        } else {
            err = "unknown device spec key \"" + key + "\"";
            return false;
        }
        if (!ok) {
            err = "bad value \"" + text + "\" for device spec key \"" + key + "\"";
            return false;
        }
    }
    return true;
}

SimDisk::SimDisk(const SimConfig& cfg) : cfg_(cfg) {}

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
    if (c.opcode == sbc::kReadCapacity) {
        sbc::readCapacity(c, cfg_.blocks, cfg_.blockSize);
        return;
    }
    if (!sbc::isDataCommand(c.opcode)) {
        buildFixedSense(out, 0x05, 0x20, 0x00, false, 0, false, 0);
        return;
    }
    if (!sbc::checkRange(c, cfg_.blocks, out)) return;
    if (!cfg_.store || cfg_.blockSize == 0 || c.tl == 0) return;
    if (c.opcode == sbc::kRead && c.readBuf)
        storeRead(c.lba, c.tl, c.readBuf, c.readLen);
    else if ((c.opcode == sbc::kWrite || c.opcode == sbc::kWrv) && c.writeBuf)
        storeWrite(c.lba, c.tl, c.writeBuf, c.writeLen);
}

// Copies up to tl blocks (bounded by the buffer length) into the store,
// allocating the chunks it touches for the first time.
void SimDisk::storeWrite(uint64_t lba, uint32_t tl, const uint8_t* src, uint64_t len) {
    const uint64_t bs = cfg_.blockSize, chunkBytes = kChunkBlocks * bs;
    uint64_t off = lba * bs, left = std::min<uint64_t>(len, uint64_t(tl) * bs);
    std::lock_guard<std::mutex> g(storeLock_);
    while (left > 0) {
        const uint64_t ci = off / chunkBytes, within = off % chunkBytes;
        const uint64_t n = std::min(left, chunkBytes - within);
        auto& chunk = chunks_[ci];
        if (!chunk) {
            chunk.reset(new uint8_t[chunkBytes]);
            std::memset(chunk.get(), 0, chunkBytes);
        }
        std::memcpy(chunk.get() + within, src, n);
        src += n;
        off += n;
        left -= n;
    }
}

// Copies up to tl blocks (bounded by the buffer length) out of the store;
// blocks never written read as zeros.
void SimDisk::storeRead(uint64_t lba, uint32_t tl, uint8_t* dst, uint64_t len) {
    const uint64_t bs = cfg_.blockSize, chunkBytes = kChunkBlocks * bs;
    uint64_t off = lba * bs, left = std::min<uint64_t>(len, uint64_t(tl) * bs);
    std::lock_guard<std::mutex> g(storeLock_);
    while (left > 0) {
        const uint64_t ci = off / chunkBytes, within = off % chunkBytes;
        const uint64_t n = std::min(left, chunkBytes - within);
        auto it = chunks_.find(ci);
        if (it == chunks_.end())
            std::memset(dst, 0, n);
        else
            std::memcpy(dst, it->second.get() + within, n);
        dst += n;
        off += n;
        left -= n;
    }
}

}  // namespace mqb
