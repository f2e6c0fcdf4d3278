// MQBErr.h: the status codes of the device-access library and their texts.
#pragma once
#include "MQBExport.h"

// Every status the library returns is 0 (good) or one of these negative codes.
enum MQBStatus {
    MQB_OK               = 0,
    MQB_ERR_GENERAL      = -1,   // "General Failure"
    MQB_ERR_PARAM        = -2,   // "Invalid Parameter"
    MQB_ERR_NO_DEVICE    = -3,   // "No Device Selected"
    MQB_ERR_DEV_RANGE    = -4,   // "Device Index Out Of Range"
    MQB_ERR_LOCKED       = -5,   // "Device Locked"
    MQB_ERR_QUEUE_FULL   = -6,   // "Queue Full"
    MQB_ERR_NOTHING_OUT  = -7,   // "No Command Outstanding"
    MQB_ERR_IOCTL        = -8,   // "Unknown IOCTL Code"
    MQB_ERR_RECORD       = -9,   // "Bad Command Record"
    MQB_ERR_NO_MEMORY    = -10,  // "Out Of Memory"
    MQB_ERR_DRIVER       = -11,  // "Unknown Driver"
    MQB_ERR_IO           = -12,  // "I/O Error"
    MQB_ERR_FORMAT       = -13,  // "Format Error"
    MQB_ERR_TIMEOUT      = -14,  // "Command Timeout"
    MQB_ERR_BUSY         = -15,  // "Device Busy"
    MQB_ERR_CHECK        = -16,  // "Check Condition"
    MQB_ERR_TRANSFER     = -17,  // "Transfer Length Too Large"
    MQB_ERR_UNSUPPORTED  = -18,  // "Not Supported"
    MQB_ERR_NO_QUEUE     = -19,  // "Cannot Open Device Queue" (mqb info IDX: queue_error)
};

class MQB_API MQBErr {
public:
    // Returns a constant text for `status`; codes the library does not know get
    // "Unknown Status". Never null, never freed, safe from any thread.
    static const char* errStr(int status);
};
