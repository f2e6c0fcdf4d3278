// tclerrstr_test.cpp: the texts of the Tcl layer's status codes and the hand-off
// of every other code to the device-access library.
#include <gtest/gtest.h>

#include "MQBErr.h"
#include "TCLErrStr.h"

TEST(TCLErrStr, OwnCodesThenDeviceLibrary) {
    const char* want[13] = {"Unknown Packet/Command Type", "File IO", "File Not Found",
        "Bad MQB Index", "Buffer Overflow", "Out Of Memory", "Parameter Out Of Range",
        "Mqb Creation", "Unknown CDB/ATA Parameter", "Internal CDB/ATA Template Error",
        "CDB/ATA bytes Formation Error", "Internal Parse Error", "Parse Syntax"};
    for (int code = -113; code <= -101; ++code)
        EXPECT_STREQ(TCLErrStr::errStr(code), want[code + 113]) << code;
    for (int code : {-100, -114, 0, -13, -1000, 5})  // just outside the range, and others
        EXPECT_STREQ(TCLErrStr::errStr(code), MQBErr::errStr(code)) << code;
}
