// WriteJournal.cpp: the per-block journal and its file form.
#include "WriteJournal.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace mqb {

namespace {

constexpr char kMagic[8] = {'K', 'I', 'V', 'J', 'R', 'N', 'L', '1'};
constexpr size_t kChunk = 1 << 20;

// File header, little-endian, 32 bytes.
struct Header {
    char     magic[8];
    uint64_t blocks;
    uint32_t blockSize;
    uint32_t reserved;
    uint64_t nextSeq;
};
static_assert(sizeof(Header) == 32, "journal header layout");

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

std::string sysErr(const std::string& what, const std::string& path) {
    return what + " \"" + path + "\": " + std::strerror(errno);
}

}  // namespace

WriteJournal::WriteJournal(uint64_t blocks, uint32_t)
    : blocks_(blocks), bytes_(new std::atomic<uint8_t>[blocks]) {
    for (uint64_t i = 0; i < blocks; ++i) bytes_[i].store(kUnknown, std::memory_order_relaxed);
}

void WriteJournal::fill(uint64_t lba, uint32_t tl, uint8_t v) {
    const uint64_t end = lba + tl < blocks_ ? lba + tl : blocks_;
    for (uint64_t b = lba; b < end; ++b) bytes_[b].store(v, std::memory_order_relaxed);
}

bool WriteJournal::save(const std::string& path, uint32_t blockSize, uint64_t nextSeq,
                        std::string& err) const {
    File f(std::fopen(path.c_str(), "wb"));
    if (!f) { err = sysErr("cannot create journal", path); return false; }
    Header h{};
    std::memcpy(h.magic, kMagic, sizeof kMagic);
    h.blocks = blocks_;
    h.blockSize = blockSize;
    h.nextSeq = nextSeq;
    bool ok = std::fwrite(&h, sizeof h, 1, f.get()) == 1;
    std::vector<uint8_t> buf(kChunk);
    for (uint64_t at = 0; ok && at < blocks_; at += kChunk) {
        const size_t n = size_t(blocks_ - at < kChunk ? blocks_ - at : kChunk);
        for (size_t i = 0; i < n; ++i) buf[i] = bytes_[at + i].load(std::memory_order_relaxed);
        ok = std::fwrite(buf.data(), 1, n, f.get()) == n;
    }
    if (std::fflush(f.get()) != 0) ok = false;
    if (!ok) { err = sysErr("cannot write journal", path); return false; }
    return true;
}

bool WriteJournal::load(const std::string& path, uint32_t blockSize, uint64_t& nextSeq,
                        std::string& err) {
    File f(std::fopen(path.c_str(), "rb"));
    if (!f) { err = sysErr("cannot open journal", path); return false; }
    Header h{};
    if (std::fread(&h, sizeof h, 1, f.get()) != 1 || std::memcmp(h.magic, kMagic, sizeof kMagic) != 0) {
        err = "\"" + path + "\" is not a write journal";
        return false;
    }
    if (h.blocks != blocks_ || h.blockSize != blockSize) {
        err = "journal \"" + path + "\" is for a device of " + std::to_string(h.blocks) +
              " blocks of " + std::to_string(h.blockSize) + " bytes, not " +
              std::to_string(blocks_) + " blocks of " + std::to_string(blockSize) + " bytes";
        return false;
    }
    // Read everything first so a short file leaves the journal as it was.
    std::vector<uint8_t> all(static_cast<size_t>(blocks_));
    if (blocks_ && std::fread(all.data(), 1, all.size(), f.get()) != all.size()) {
        err = "journal \"" + path + "\" is truncated";
        return false;
    }
    for (uint64_t i = 0; i < blocks_; ++i) bytes_[i].store(all[i], std::memory_order_relaxed);
    nextSeq = h.nextSeq;
    return true;
}

}  // namespace mqb
