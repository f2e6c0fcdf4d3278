// TCLErrStr.cpp: texts of the Tcl layer's own status codes (-113 to -101).
// Anything outside that range belongs to the device-access library.
#include "TCLErrStr.h"

#include "MQBErr.h"

const char* TCLErrStr::bad_command_type_msg = "Unknown Packet/Command Type";
const char* TCLErrStr::file_io_msg = "File IO";
const char* TCLErrStr::file_not_found_msg = "File Not Found";
const char* TCLErrStr::bad_mqb_msg = "Bad MQB Index";
const char* TCLErrStr::buffer_overflow_msg = "Buffer Overflow";
const char* TCLErrStr::out_of_memory_msg = "Out Of Memory";
const char* TCLErrStr::out_of_range_msg = "Parameter Out Of Range";
const char* TCLErrStr::mqb_creation_msg = "Mqb Creation";
const char* TCLErrStr::cmd_unknown_parm_msg = "Unknown CDB/ATA Parameter";
const char* TCLErrStr::cmd_internal_msg = "Internal CDB/ATA Template Error";
const char* TCLErrStr::cmd_formation_msg = "CDB/ATA bytes Formation Error";
const char* TCLErrStr::parse_internal_msg = "Internal Parse Error";
const char* TCLErrStr::parse_syntax_msg = "Parse Syntax";
const char* TCLErrStr::undefined_msg = "Undefined Error";

// Returns the constant text of `code`: the table's row for -113..-101, the
// device-access library's text for any other code.
const char* TCLErrStr::errStr(int code) {
    // In code order, starting at -113.
    static const char* const* const table[13] = {
        &bad_command_type_msg, &file_io_msg,        &file_not_found_msg,
        &bad_mqb_msg,          &buffer_overflow_msg, &out_of_memory_msg,
        &out_of_range_msg,     &mqb_creation_msg,    &cmd_unknown_parm_msg,
        &cmd_internal_msg,     &cmd_formation_msg,   &parse_internal_msg,
        &parse_syntax_msg,
    };
    int i = code + 113;
    if (i >= 0 && i <= 12) return *table[i];
    return MQBErr::errStr(code);
}
