// Record.h: reading the extension's 112-byte command record (the layout in
// mqbrec, MQB.h): the checks a record must pass and its fields as a Command.
// Inline: the channel reads one record per command.
#pragma once
#include <cstdint>
#include <cstring>
#include "MQB.h"
#include "MQBErr.h"
#include "backends/Backend.h"
#include "scsi/Cdb.h"

namespace mqb {

inline uint32_t ld32(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline uint64_t ld64(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

template <typename T>
inline T* ldPtr(const unsigned char* p) {
    T* v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// MQB_OK when `record` says it is one of ours and carries a CDB of 1 to 16
// bytes, else MQB_ERR_RECORD.
inline int checkRecord(const unsigned char* record) {
    if (ld32(record + mqbrec::kRecLen) != uint32_t(mqbrec::kSize)) return MQB_ERR_RECORD;
    const uint8_t cdbLen = record[mqbrec::kCdbLen];
    if (cdbLen == 0 || cdbLen > 16) return MQB_ERR_RECORD;
    return MQB_OK;
}

// Reads a checked record: copies its 16 CDB bytes into `cdb` (which `c.cdb`
// then points at) and fills `c` with the CDB's fields and the caller's data
// buffers; a 16-byte data command's opcode in `c` is its 10-byte kind. Returns the command's tag.
inline uint32_t decodeRecord(const unsigned char* record, uint8_t cdb[16], Command& c) {
    std::memcpy(cdb, record + mqbrec::kCdb, 16);
    c.cdb = cdb;
    c.cdbLen = record[mqbrec::kCdbLen];
    // What the command does: a 16-byte data command as its 10-byte kind (the
    // CDB keeps what was sent, for the trace and the pass-through devices).
    if (scsi::isData10(cdb[0]) && c.cdbLen >= 10) {  // the usual command, read directly
        c.opcode = cdb[0];
        c.lba = scsi::be32(cdb + 2);
        c.tl = scsi::be16(cdb + 7);
    } else {
        c.opcode = scsi::dataFamily(cdb[0]);
        if (!scsi::getDataCdb(cdb, c.cdbLen, c.lba, c.tl)) {
            c.opcode = cdb[0];  // not a data command, or a CDB short of its form
            scsi::lbaAndLength(cdb, c.cdbLen, c.lba, c.tl);
        }
    }
    c.readBuf = ldPtr<uint8_t>(record + mqbrec::kReadBuf);
    c.readLen = ld64(record + mqbrec::kReadLen);
    c.writeBuf = ldPtr<const uint8_t>(record + mqbrec::kWriteBuf);
    c.writeLen = ld64(record + mqbrec::kWriteLen);
    return ld32(record + mqbrec::kTag);
}

}  // namespace mqb
