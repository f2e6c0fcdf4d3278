// FileDisk.cpp: SBC commands on a file or block device through pread/pwrite.
// Reads and writes move min(buffer length, TL blocks) bytes; VERIFY reads the
// blocks through a small stack buffer so a bad medium shows up without any
// allocation. I/O failures answer MEDIUM ERROR sense like a real disk would.
// prepareAsync describes the same transfers for a channel that runs them
// through io_uring; the channel then maps failures to the same sense.
#include "FileDisk.h"
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include "MQBErr.h"

namespace mqb {

std::unique_ptr<Backend> FileDisk::open(const std::string& path, std::string& err) {
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
    // SEEK_END gives the size of block devices as well as of regular files.
    const off_t size = ::lseek(fd, 0, SEEK_END);
    if (size < off_t(kBlockSize)) {
        ::close(fd);
        err = "\"" + path + "\" is smaller than one block";
        return nullptr;
    }
    return std::unique_ptr<Backend>(new FileDisk(fd, readOnly, uint64_t(size) / kBlockSize));
}

FileDisk::~FileDisk() { ::close(fd_); }

bool FileDisk::readAt(uint8_t* dst, uint64_t len, uint64_t off) {
    while (len > 0) {
        const ssize_t n = ::pread(fd_, dst, len, off_t(off));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        dst += n;
        off += uint64_t(n);
        len -= uint64_t(n);
    }
    return true;
}

bool FileDisk::writeAt(const uint8_t* src, uint64_t len, uint64_t off) {
    while (len > 0) {
        const ssize_t n = ::pwrite(fd_, src, len, off_t(off));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        src += n;
        off += uint64_t(n);
        len -= uint64_t(n);
    }
    return true;
}

bool FileDisk::prepareAsync(const Command& c, IoRequest& io) {
    if (!sbc::isDataCommand(c.opcode)) return false;
    Outcome range;
    if (!sbc::checkRange(c, blocks_, range)) return false;  // execute() answers 05/21/00
    const uint64_t bytes = uint64_t(c.tl) * kBlockSize;
    uint8_t* buf = nullptr;
    uint64_t len = bytes;
    IoRequest::Kind kind = IoRequest::Kind::Verify;
    if (c.opcode == sbc::kRead) {
        if (!c.readBuf) return false;
        kind = IoRequest::Kind::Read, buf = c.readBuf, len = std::min(bytes, c.readLen);
    } else if (c.opcode != sbc::kVerify) {
        if (readOnly_ || !c.writeBuf) return false;  // execute() answers write protected
        // The kernel only reads from a write's buffer.
        kind = IoRequest::Kind::Write, buf = const_cast<uint8_t*>(c.writeBuf);
        len = std::min(bytes, c.writeLen);
    }
    if (len == 0) return false;
    io.kind = kind, io.fd = fd_, io.buf = buf, io.len = len, io.off = c.lba * kBlockSize;
    return true;
}

void FileDisk::execute(const Command& c, Outcome& out) {
    out.status = MQB_OK;
    out.senseLen = 0;
    if (c.opcode == sbc::kReadCapacity) {
        sbc::readCapacity(c, blocks_, kBlockSize);
        return;
    }
    if (!sbc::isDataCommand(c.opcode)) {
        buildFixedSense(out, 0x05, 0x20, 0x00, false, 0, false, 0);
        return;
    }
    if (!sbc::checkRange(c, blocks_, out)) return;
    const uint64_t off = c.lba * kBlockSize, bytes = uint64_t(c.tl) * kBlockSize;
    switch (c.opcode) {
    case sbc::kRead:
        if (c.readBuf && !readAt(c.readBuf, std::min(bytes, c.readLen), off))
            buildFixedSense(out, 0x03, 0x11, 0x00, false, 0, false, 0);  // unrecovered read error
        break;
    case sbc::kWrite:
    case sbc::kWrv:
        if (readOnly_)
            buildFixedSense(out, 0x07, 0x27, 0x00, false, 0, false, 0);  // write protected
        else if (c.writeBuf && !writeAt(c.writeBuf, std::min(bytes, c.writeLen), off))
            buildFixedSense(out, 0x03, 0x0C, 0x00, false, 0, false, 0);  // write error
        break;
    case sbc::kVerify: {
        uint8_t scratch[4096];
        for (uint64_t done = 0; done < bytes; done += sizeof scratch) {
            if (!readAt(scratch, std::min<uint64_t>(sizeof scratch, bytes - done), off + done)) {
                buildFixedSense(out, 0x03, 0x11, 0x00, false, 0, false, 0);
                break;
            }
        }
        break;
    }
    }
}

}  // namespace mqb
