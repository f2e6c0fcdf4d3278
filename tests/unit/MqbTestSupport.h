// MqbTestSupport.h: what the device library's tests share: temporary files,
// devices with a channel on them, commands for a channel (cdbtest) or a
// backend's queue, the sense answers we expect, and data patterns.
#pragma once
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include "DeviceTable.h"
#include "MQB.h"
#include "MQBErr.h"
#include "Scsi.h"
#include "backends/Queue.h"
#include "scsi/Cdb.h"
#include "CDBStruct.h"
#include "SenseParser.h"
#include "TestSupport.h"

// Building commands for an MQB channel and the sense bytes they should bring back.
namespace cdbtest {
using Bytes = std::vector<uint8_t>;

// The record of one 10-byte data command (flags in CDB byte 1); `out` is its
// data-out buffer, `in` its data-in one.
inline CDBStruct record(uint8_t op, uint32_t lba, uint16_t tl, uint32_t tag = 0, const uint8_t* out = nullptr,
                        uint64_t outLen = 0, uint8_t* in = nullptr, uint64_t inLen = 0, uint8_t flags = 0) {
    CDBStruct r;
    std::memset(&r, 0, sizeof r);
    r.recLen = 112, r.one = 1, r.tag = tag, r.cdbLen = 10, r.cdb[0] = op, r.cdb[1] = flags;
    scsi::putBe32(r.cdb + 2, lba), scsi::putBe16(r.cdb + 7, tl);
    r.writeBuf = const_cast<uint8_t*>(out), r.writeLen = outLen, r.readBuf = in, r.readLen = inLen;
    return r;
}
// As above with one buffer: data-out for a WRITE or WRITE AND VERIFY, else data-in.
inline CDBStruct record(uint8_t op, uint32_t lba, uint16_t tl, uint32_t tag, Bytes* buf) {
    const bool out = buf && (op == scsi::kWrite10 || op == scsi::kWriteVerify10);
    return record(op, lba, tl, tag, out ? buf->data() : nullptr, out ? buf->size() : 0,
                  buf && !out ? buf->data() : nullptr, buf && !out ? buf->size() : 0);
}
inline int send(MQB& m, CDBStruct r) { return m.send(reinterpret_cast<unsigned char*>(&r)); }
// send, then receive: the command's status.
inline int roundTrip(MQB& m, CDBStruct r) { const int rc = send(m, r); return rc ? rc : m.receive(); }
inline int lastTag(MQB& m) { int t = -1; EXPECT_EQ(m.receiveInfo(MQB_INFO_TAG, 1, &t), 0); return t; }
// The sense of the last failed command, as long as the channel says it is.
inline Bytes lastSense(MQB& m) {
    unsigned char b[SenseParser::kMaxSense];
    int size = SenseParser::kMaxSense, n = 0;
    m.errInfo(MQB_INFO_SENSE, 3, b, &size, &n);
    return Bytes(b, b + (n > 0 ? n : 0));
}
// Fixed-format sense of `len` bytes (70h; F0h with INFORMATION when `info` >= 0).
inline Bytes fixedSense(uint8_t key, uint8_t asc, uint8_t ascq = 0, int64_t info = -1, size_t len = 32) {
    Bytes s(len, 0);
    s[0] = info >= 0 ? 0xF0 : 0x70, s[2] = key, s[7] = uint8_t(len - 8), s[12] = asc, s[13] = ascq;
    if (info >= 0) scsi::putBe32(&s[3], uint32_t(info));
    return s;
}
}  // namespace cdbtest

namespace mqbtest {
using namespace cdbtest;
using namespace scsi;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A new file of `bytes` bytes from `tmpl` (ending in XXXXXX), open in `fd`
// and unlinked with the object.
struct TempFile {
    std::string path;
    int fd = -1;
    explicit TempFile(std::string tmpl = "/tmp/mqb_test_XXXXXX", off_t bytes = 0) {
        fd = mkstemp(&tmpl[0]);
        path = tmpl;
        EXPECT_GE(fd, 0) << tmpl;
        EXPECT_EQ(ftruncate(fd, bytes), 0);
    }
    ~TempFile() { close(fd), unlink(path.c_str()); }
};

// Sets a channel's data mode (6: keyed blocks, 3: generated data, 0: the
// caller's buffer as it is). Returns the ioctl's status.
inline int setDataMode(MQB& m, int mode) {
    int arg = 0;
    unsigned char flag = 0;
    return m.ioctl(MQB_IOCTL_DATA_MODE, 3, &mode, &arg, &flag);
}

// A device added from `text` (at `idx`) with a channel of its own on it.
struct Dev {
    int idx = -1;
    std::unique_ptr<MQB> m = std::make_unique<MQB>("sim");
    explicit Dev(const std::string& text) {
        std::string err;
        EXPECT_GE(idx = mqb::addDevice(text, err), 0) << text << ": " << err;
        EXPECT_EQ(m->setDeviceIndex(idx), 0);
    }
    mqb::DeviceStats stats() const { mqb::DeviceStats s; EXPECT_TRUE(mqb::stats(idx, s)); return s; }
    mqb::DeviceSummary summary() const { mqb::DeviceSummary s; EXPECT_TRUE(mqb::deviceSummary(idx, s)); return s; }
    void fault(const mqb::FaultRule& r) { std::string e; EXPECT_GT(mqb::addFault(idx, r, e), 0) << e; }
};

// A file device of `blocks` 512-byte blocks in a new file from `tmpl` (/var/tmp:
// /tmp may not take O_DIRECT), `opts` added; the channel goes before the file.
struct FileDevice {
    TempFile file;
    Dev dev;
    MQB& m = *dev.m;
    FileDevice(uint64_t blocks, const std::string& opts = "", const std::string& tmpl = "/var/tmp/mqb_test_XXXXXX")
        : file(tmpl, off_t(blocks * 512)), dev("file:" + file.path + opts) {}
};

// One data command for a backend's queue with its CDB and outcome; `buf` is
// the data-in buffer of a READ, else data-out. Not copied: `c` points into it.
struct QCmd {
    uint8_t cdb[16] = {};
    mqb::Command c;
    mqb::Outcome out;
    QCmd(uint8_t op, uint64_t lba, uint32_t tl, uint8_t* buf = nullptr, uint64_t len = 0, uint8_t flags = 0) {
        c.cdbLen = scsi::putDataCdb(cdb, op, flags, lba, tl, false);
        c.cdb = cdb, c.opcode = op, c.lba = lba, c.tl = tl;
        if (op == scsi::kRead10) c.readBuf = buf, c.readLen = len;
        else c.writeBuf = buf, c.writeLen = len;
    }
    QCmd(const QCmd&) = delete;
    int submit(mqb::Queue& q, uint64_t token) { return q.submit(c, &out, token); }
};

// Reaps until `n` tokens came back, a reap brings none (a time-out after
// `timeoutNs`; -1 waits without limit) or the queue holds nothing; returns them.
inline std::vector<uint64_t> reapAll(mqb::Queue& q, int n, int64_t timeoutNs = -1) {
    std::vector<uint64_t> got(size_t(n) + 1);
    int have = 0;
    while (have < n && q.outstanding() > 0) {
        const int r = q.reap(got.data() + have, 1, n - have, timeoutNs);
        if (r <= 0) break;
        have += r;
    }
    got.resize(size_t(have));
    return got;
}

// Our fixed-format sense of `key` and `a` (with INFORMATION when `info` >= 0).
inline Bytes sense(uint8_t key, scsi::Asc a, int64_t info = -1) { return fixedSense(key, a.asc, a.ascq, info); }

// The answers to a block past the disk's end and to an opcode it does not know.
inline const Bytes kOutOfRange = sense(scsi::kKeyIllegalRequest, scsi::kLbaOutOfRange);
inline const Bytes kBadOpcode = sense(scsi::kKeyIllegalRequest, scsi::kInvalidOpcode);

// The sense a command that ended with `rc` left on `m`: empty unless `rc` is a CHECK CONDITION.
inline Bytes senseOf(MQB& m, int rc) { return rc == MQB_ERR_CHECK ? lastSense(m) : Bytes{}; }

// `n` bytes that differ from block to block and from seed to seed.
inline Bytes pattern(size_t n, int seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t(i * 31 + size_t(seed) + i / 512);
    return b;
}
}  // namespace mqbtest
