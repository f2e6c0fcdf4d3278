// TCLErrStr.h: texts of the Tcl layer's status codes (-113 to -101); any other
// code is answered by the device-access library's MQBErr::errStr.
#pragma once

class TCLErrStr {
public:
    static const char* bad_command_type_msg;
    static const char* file_io_msg;
    static const char* file_not_found_msg;
    static const char* bad_mqb_msg;
    static const char* buffer_overflow_msg;
    static const char* out_of_memory_msg;
    static const char* out_of_range_msg;
    static const char* mqb_creation_msg;
    static const char* cmd_unknown_parm_msg;
    static const char* cmd_internal_msg;
    static const char* cmd_formation_msg;
    static const char* parse_internal_msg;
    static const char* parse_syntax_msg;
    static const char* undefined_msg;

    static const char* errStr(int code);
};
