// FileDisk.h: a regular file (512-byte blocks) or a block device (its own
// logical block size and capacity) as a SCSI disk. Data commands are real I/O
// through the file queues (FileQueue), with O_DIRECT unless the device text says
// direct=0; this object holds what those queues share: the descriptors and
// the geometry.
#pragma once
#include <memory>
#include <string>
#include "Backend.h"

namespace mqb {

class FileDisk : public Backend {
public:
    // Opens "PATH" or "PATH,direct=0|1" read-write (read-only when that is all
    // it allows). Returns null with a message in `err` when it cannot be
    // opened, holds no block, or direct I/O was asked for and is refused.
    static std::unique_ptr<Backend> open(const std::string& params, std::string& err);
    ~FileDisk() override;
    // A queue through io_uring when FileQueue::ringAvailable(), else one
    // that runs each command inside submit ("sync").
    std::unique_ptr<Queue> openQueue(int depth, std::string& err) override;
    const char* queueKind() const override;
    Geometry geometry() const override { return Geometry{blocks_, blockSize_}; }
    const char* kind() const override { return "file"; }
    bool direct() const override { return directFd_ >= 0; }

    // The descriptor for aligned transfers (O_DIRECT when direct), and the one
    // for transfers direct I/O cannot take (buffered; the same descriptor
    // when not direct).
    int alignedFd() const { return directFd_ >= 0 ? directFd_ : fd_; }
    int bufferedFd() const { return fd_; }
    // Address and length alignment an alignedFd() transfer needs (1 when
    // not direct).
    uint32_t alignment() const { return directFd_ >= 0 ? blockSize_ : 1; }
    uint32_t blockSize() const { return blockSize_; }
    uint64_t blocks() const { return blocks_; }
    bool readOnly() const { return readOnly_; }

    static constexpr uint32_t kFileBlockSize = 512;

private:
    FileDisk(int fd, int directFd, bool readOnly, uint64_t blocks, uint32_t blockSize)
        : fd_(fd), directFd_(directFd), readOnly_(readOnly), blocks_(blocks),
          blockSize_(blockSize) {}

    const int fd_;
    const int directFd_;  // -1 when not direct
    const bool readOnly_;
    const uint64_t blocks_;
    const uint32_t blockSize_;
};

}  // namespace mqb
