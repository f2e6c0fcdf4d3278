// FileDisk.cpp: opening a file or block device as a disk: the device text after "file:",
// the geometry (BLKSSZGET and BLKGETSIZE64 for a block device, 512-byte
// blocks for a file) and the O_DIRECT descriptor, probed once so that a file
// system that refuses direct I/O says so at open instead of failing every
// command.
#include "FileDisk.h"
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include "DeviceText.h"
#include "FileQueue.h"

namespace mqb {

namespace {

// Reads one block at offset 0 through `fd` into a buffer aligned to exactly
// `align` (and no more), to see whether direct I/O takes that alignment.
bool probeDirect(int fd, uint32_t align) {
    void* mem = nullptr;
    if (posix_memalign(&mem, size_t(align) * 2, size_t(align) * 2) != 0) return false;
    const ssize_t n = ::pread(fd, static_cast<uint8_t*>(mem) + align, align, 0);
    std::free(mem);
    return n == ssize_t(align);
}

}  // namespace

std::unique_ptr<Backend> FileDisk::open(const std::string& params, std::string& err) {
    std::string path = params;
    uint64_t direct = 1;
    if (!devtext::takeTrailingOption(path, "direct", 0, 1, direct, err)) return nullptr;
    const bool wantDirect = direct == 1;
    if (path.empty()) {
        err = "file device needs a path";
        return nullptr;
    }
    bool readOnly = false;
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0 && (errno == EACCES || errno == EROFS || errno == EPERM)) {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        readOnly = true;
    }
    if (fd < 0) {
        err = "cannot open \"" + path + "\": " + std::strerror(errno);
        return nullptr;
    }
    struct stat st;
    uint64_t bytes = 0;
    uint32_t bs = kFileBlockSize;
    if (::fstat(fd, &st) == 0 && S_ISBLK(st.st_mode)) {
        int lbs = 0;
        if (::ioctl(fd, BLKSSZGET, &lbs) == 0 && lbs > 0) bs = uint32_t(lbs);
        if (::ioctl(fd, BLKGETSIZE64, &bytes) != 0) bytes = 0;
    } else {
        // SEEK_END also sizes what fstat cannot (some character devices say 0).
        const off_t end = ::lseek(fd, 0, SEEK_END);
        bytes = end > 0 ? uint64_t(end) : 0;
    }
    if (bytes < bs) {
        ::close(fd);
        err = "\"" + path + "\" is smaller than one block";
        return nullptr;
    }
    int directFd = -1;
    if (wantDirect) {
        directFd = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_DIRECT);
        const int openErr = errno;
        if (directFd < 0 || !probeDirect(directFd, bs)) {
            const std::string why = directFd < 0 ? std::strerror(openErr)
                                                 : "transfers of one block are refused";
            if (directFd >= 0) ::close(directFd);
            ::close(fd);
            err = "cannot use direct I/O on \"" + path + "\": " + why +
                  " (add ,direct=0 for buffered I/O)";
            return nullptr;
        }
    }
    return std::unique_ptr<Backend>(new FileDisk(fd, directFd, readOnly, bytes / bs, bs));
}

FileDisk::~FileDisk() {
    if (directFd_ >= 0) ::close(directFd_);
    ::close(fd_);
}

std::unique_ptr<Queue> FileDisk::openQueue(int depth, std::string&) {
    return std::make_unique<FileQueue>(*this, depth, FileQueue::ringAvailable());
}

const char* FileDisk::queueKind() const { return FileQueue::ringAvailable() ? "io_uring" : "sync"; }

}  // namespace mqb
