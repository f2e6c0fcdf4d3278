// MQBErr.cpp: the texts of the library's status codes.
#include "MQBErr.h"

// Codes run from 0 down to -19 without gaps, so the text is a table lookup.
const char* MQBErr::errStr(int status) {
    static const char* const kTexts[] = {
        "Success",
        "General Failure",
        "Invalid Parameter",
        "No Device Selected",
        "Device Index Out Of Range",
        "Device Locked",
        "Queue Full",
        "No Command Outstanding",
        "Unknown IOCTL Code",
        "Bad Command Record",
        "Out Of Memory",
        "Unknown Driver",
        "I/O Error",
        "Format Error",
        "Command Timeout",
        "Device Busy",
        "Check Condition",
        "Transfer Length Too Large",
        "Not Supported",
        "Cannot Open Device Queue",
    };
    constexpr int kCount = int(sizeof kTexts / sizeof kTexts[0]);
    if (status > 0 || status <= -kCount) return "Unknown Status";
    return kTexts[-status];
}
