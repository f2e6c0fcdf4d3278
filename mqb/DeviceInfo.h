// DeviceInfo.h: the geometry record a device reports through MQB::getDeviceInfo.
#pragma once
#include <cstdint>

// What a device says about itself. `capacity` is the last addressable LBA (the
// READ CAPACITY convention), so a loop that treats it as an inclusive upper bound
// never addresses past the end. `blockSize` is the logical block size in bytes; a
// simulated disk may report 0 until it has answered a READ CAPACITY(10).
struct DeviceInfo {
    uint64_t capacity = 0;
    uint32_t blockSize = 0;
    int      index = -1;        // device index in the process-wide table
    char     backend[16] = {};  // "sim", "file", "sg"
    int      cdbForm = 0;       // data-command CDB form the device text forces (10, 16) or 0
};
