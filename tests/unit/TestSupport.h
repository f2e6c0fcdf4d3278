// TestSupport.h: what the unit tests share: one Tcl interpreter (with the stubs
// table initialised for the extension's code), capture of its puts output and
// of the process's stdout, temporary files, and a KIVControl over simulated disks.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <gtest/gtest.h>
#include <tcl.h>

#include "KIVControl.h"
#include "MQBManager.h"

// The interpreter made by the test main; Tk is not loaded in it.
Tcl_Interp* testInterp();

// What `f` writes through the test interpreter's puts (to stdout; the result is
// reset after), on the process's stdout and on its stderr.
std::string tclOutput(const std::function<void()>& f);
std::string stdoutOf(const std::function<void()>& f);
std::string stderrOf(const std::function<void()>& f);

// A new empty file under /tmp (the caller unlinks it); a file's whole text.
std::string makeTempFile();
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// Four simulated disks of 1000 blocks, the current channel on the last (index 3),
// and a KIVControl that has not been through init yet.
class SimControlTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;  // deletes the loops at ctl's device positions
    // init with its output (none expected when a channel is loaded) discarded.
    void quietInit() { tclOutput([this] { ctl->init(&mgr, testInterp()); }); }
    // A running loop on the current disk, added at ctl's next device position and
    // reporting `deviceIdx`; the test sets its counters.
    KIVLoop* addLoop(uint32_t deviceIdx);

    MQBManager mgr;
    std::unique_ptr<KIVControl> ctl;
};

// Building commands for an MQB channel and the sense bytes they should bring back.
#include <cstring>
#include <vector>
#include "CDBStruct.h"
#include "MQB.h"
#include "MQBErr.h"
#include "Scsi.h"
#include "SenseParser.h"

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
