// Utils.h: the integer converter behind every numeric and boolean kiv option.
#pragma once
#include <cstdint>
#include <tcl.h>

class MQBManager;

namespace Utils {

// Result flags of getInt; 0 is success.
enum GetIntFlags {
    GETINT_OVERFLOW  = 1,
    GETINT_UNDERFLOW = 2,
    GETINT_SIGN      = 4,
    GETINT_FORMAT    = 8,
};

// Converts `text` into `out`: decimal, "-" decimal, "0x"/"$" hex, "0b" binary,
// leading "0" octal, or the keywords recv/send (the manager's buffer indexes),
// start/yes/true/on (1) and stop/no/false/off (0). Returns the flags above. A bad
// format appends a message to the interpreter result; overflow, underflow and
// sign diagnostics go to standard error. Instantiated for unsigned int only.
template <typename T>
int getInt(T& out, const char* text, Tcl_Interp* interp, MQBManager* manager);

// A number of up to 64 bits in any of getInt's bases, for values past 32 bits
// (LBAs). True when `text` is a whole number that fits, with `out` set; false,
// with `out` untouched and nothing printed, otherwise.
bool getWide(uint64_t& out, const char* text);

// The per-base routines getInt dispatches to; each returns flags and leaves in
// `out` the value of the digits read.
template <typename T> int atoiDec(T& out, const char* text);
template <typename T> int atoiDecNeg(T& out, const char* text);
template <typename T> int atoiHex(T& out, const char* text);
template <typename T> int atoiOctal(T& out, const char* text);
template <typename T> int atoiBin(T& out, const char* text);

}  // namespace Utils
