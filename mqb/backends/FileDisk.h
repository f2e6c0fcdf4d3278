// FileDisk.h: a regular file or block device as a SCSI disk of 512-byte
// blocks. Data commands are real I/O: handed to the channel's io_uring when it
// has one (prepareAsync), else carried out on the caller's thread (execute).
#pragma once
#include <memory>
#include <string>
#include "Backend.h"

namespace mqb {

class FileDisk : public Backend {
public:
    // Opens `path` read-write (read-only when that is all it allows). Returns
    // null with a message in `err` when it cannot be opened or holds no block.
    static std::unique_ptr<Backend> open(const std::string& path, std::string& err);
    ~FileDisk() override;
    void execute(const Command& cmd, Outcome& out) override;
    bool prepareAsync(const Command& cmd, IoRequest& io) override;
    Geometry geometry() const override { return Geometry{blocks_, kBlockSize}; }
    const char* kind() const override { return "file"; }

    static constexpr uint32_t kBlockSize = 512;

private:
    FileDisk(int fd, bool readOnly, uint64_t blocks)
        : fd_(fd), readOnly_(readOnly), blocks_(blocks) {}
    bool readAt(uint8_t* dst, uint64_t len, uint64_t off);
    bool writeAt(const uint8_t* src, uint64_t len, uint64_t off);

    int fd_;
    bool readOnly_;
    uint64_t blocks_;
};

}  // namespace mqb
