// CDBStruct.h: the 112-byte command record a loop fills, hands to MQB::send and
// reads back for a failed command.
#pragma once
#include <cstddef>
#include <cstdint>

// Packed, little-endian, no alignment needed: a loop's 128 records lie back to back.
struct __attribute__((packed)) CDBStruct {
    uint32_t recLen;          //   0: always 112
    uint16_t one;             //   4: always 1
    uint8_t  cdbLen;          //   6: CDB bytes in use (10)
    uint8_t  reserved7;       //   7
    uint64_t writeLen;        //   8: data-out byte count
    uint64_t readLen;         //  16: data-in byte count
    uint8_t  cdb[16];         //  24: the CDB
    uint8_t  reserved40[16];  //  40
    uint8_t* writeBuf;        //  56: data-out buffer
    uint8_t  reserved64[8];   //  64
    uint8_t* readBuf;         //  72: data-in buffer
    uint8_t  reserved80[12];  //  80
    uint32_t tag;             //  92: the command's tag
    uint8_t  reserved96[16];  //  96
};

static_assert(sizeof(CDBStruct) == 112, "CDBStruct must be 112 bytes");
static_assert(offsetof(CDBStruct, one) == 4, "offset of the constant 1");
static_assert(offsetof(CDBStruct, cdbLen) == 6, "offset of cdbLen");
static_assert(offsetof(CDBStruct, writeLen) == 8, "offset of writeLen");
static_assert(offsetof(CDBStruct, readLen) == 16, "offset of readLen");
static_assert(offsetof(CDBStruct, cdb) == 24, "offset of cdb");
static_assert(offsetof(CDBStruct, writeBuf) == 56, "offset of writeBuf");
static_assert(offsetof(CDBStruct, readBuf) == 72, "offset of readBuf");
static_assert(offsetof(CDBStruct, tag) == 92, "offset of tag");
