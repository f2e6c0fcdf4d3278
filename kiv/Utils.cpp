// Utils.cpp: Utils::getInt, the converter behind every numeric and boolean kiv
// option, and the per-base digit routines it dispatches to. Only the unsigned
// int instantiation is built.
#include "Utils.h"

#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

#include "MQBManager.h"

namespace Utils {

namespace {

const char* const kBadFormatHint =
    "\n\nHint: If you are trying to enter hex data, prepend your data with '0x'.  Example: 0xff";

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Writes one numeric diagnostic line to standard error and flushes it, so it
// interleaves correctly with anything else the process prints.
template <typename T>
void diagnostic(const char* before, const char* text, const char* after, T value) {
    fprintf(stderr, "%s%s%s%u-byte integer, value = %llu\n", before, text, after,
            (unsigned int)sizeof(T), (unsigned long long)value);
    fflush(stderr);
}

}  // namespace

// Decimal digits. Sets flag 1 when the value no longer fits T; the value wraps
// and reading goes on. Stops with flag 8 at the first non-digit.
template <typename T>
int atoiDec(T& out, const char* text) {
    static const T max_value = std::numeric_limits<T>::max();
    static const T max_mult = max_value / 10;
    static const T max_add = max_value - 10 * max_mult;
    int flags = 0;
    out = 0;
    for (int i = 0; text[i] != '\0'; ++i) {
        char c = text[i];
        if (c < '0' || c > '9') return flags | GETINT_FORMAT;
        T d = (T)(c - '0');
        if (i > 0 && out > max_mult) flags |= GETINT_OVERFLOW;
        if ((T)(out * 10) == (T)(max_value - max_add) && d > max_add) flags |= GETINT_OVERFLOW;
        out = (T)(out * 10 + d);
    }
    return flags;
}

// Decimal digits of a negative number (the "-" already skipped). Sets flag 2
// when the value drops below T's minimum, which for an unsigned T is the first
// non-zero digit; an unsigned T also always gets flag 4, bad character or not.
template <typename T>
int atoiDecNeg(T& out, const char* text) {
    static const T max_value = std::numeric_limits<T>::min();
    static const T max_mult = max_value / 10;
    static const T max_sub = (T)(10 * max_mult - max_value);
    const int signFlag = std::is_unsigned<T>::value ? GETINT_SIGN : 0;
    int flags = 0;
    out = 0;
    for (int i = 0; text[i] != '\0'; ++i) {
        char c = text[i];
        if (c < '0' || c > '9') return flags | GETINT_FORMAT | signFlag;
        T d = (T)(c - '0');
        if ((T)(out * 10) == (T)(max_value + max_sub) && d > max_sub) flags |= GETINT_UNDERFLOW;
        out = (T)(out * 10 - d);
    }
    return flags | signFlag;
}

// Digits of a power-of-two radix of `bits` bits each (hexDigit's value below
// 1 << bits). Flag 1 when a shift would push set bits out.
template <typename T>
static int atoiShift(T& out, const char* text, int bits) {
    const T high_bits_mask = (T)((T)((1 << bits) - 1) << (sizeof(T) * 8 - bits));
    int flags = 0;
    out = 0;
    for (int i = 0; text[i] != '\0'; ++i) {
        int d = hexDigit(text[i]);
        if (d < 0 || d >= (1 << bits)) return flags | GETINT_FORMAT;
        if (out & high_bits_mask) flags |= GETINT_OVERFLOW;
        out = (T)((T)(out << bits) | (T)d);
    }
    return flags;
}

// Hexadecimal digits (either case), octal digits 0-7 and binary digits.
template <typename T>
int atoiHex(T& out, const char* text) { return atoiShift(out, text, 4); }
template <typename T>
int atoiOctal(T& out, const char* text) { return atoiShift(out, text, 3); }
template <typename T>
int atoiBin(T& out, const char* text) { return atoiShift(out, text, 1); }

// The number in `text` by its prefix ("$"/"0x" hex, "0b" binary, "0" octal,
// "-" negative, else decimal), with getInt's flags; no keywords, no messages.
template <typename T>
int convert(T& out, const char* text) {
    size_t len = strlen(text);
    if (len <= 1) return atoiDec(out, text);
    if (text[0] == '$') return atoiHex(out, text + 1);
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) return atoiHex(out, text + 2);
    if (text[0] == '0' && (text[1] == 'b' || text[1] == 'B')) return atoiBin(out, text + 2);
    if (text[0] == '0') return atoiOctal(out, text + 1);
    if (text[0] == '-') return atoiDecNeg(out, text + 1);
    return atoiDec(out, text);
}

bool getWide(uint64_t& out, const char* text) {
    unsigned long long v = 0;
    if (text == nullptr || convert(v, text) != 0) return false;
    out = v;
    return true;
}

// Picks the base from the prefix, converts, and falls back to the keywords when
// the text is not a number. Returns the GetIntFlags; `out` keeps the digits read
// so far on failure. A bad format is explained in the interpreter result, the
// numeric flags on standard error.
template <typename T>
int getInt(T& out, const char* text, Tcl_Interp* interp, MQBManager* manager) {
    if (text == nullptr) {
        fputs("<E> Invalid parameter passed to Utils::getInt\n", stderr);
        fflush(stderr);
        return GETINT_FORMAT;
    }
    int flags = convert(out, text);

    if (flags & GETINT_FORMAT) {
        static const char* const ones[] = {"start", "yes", "true", "on"};
        static const char* const zeros[] = {"stop", "no", "false", "off"};
        if (strcmp(text, "recv") == 0 && manager != nullptr) {
            out = (T)manager->getRecvBufferIndex();
            return 0;
        }
        if (strcmp(text, "send") == 0 && manager != nullptr) {
            out = (T)manager->getSendBufferIndex();
            return 0;
        }
        for (const char* k : ones)
            if (strcmp(text, k) == 0) {
                out = 1;
                return 0;
            }
        for (const char* k : zeros)
            if (strcmp(text, k) == 0) {
                out = 0;
                return 0;
            }
        if (interp != nullptr)
            Tcl_AppendResult(interp, "<E> Bad Number Format: ", text, kBadFormatHint, (char*)NULL);
    }
    if (flags & GETINT_SIGN) diagnostic("<E> signed/unsigned mismatch: '", text, "' saved to ", out);
    if (flags & GETINT_OVERFLOW) diagnostic("<E> value '", text, "' overflowed ", out);
    if (flags & GETINT_UNDERFLOW) diagnostic("<E> value '", text, "' underflowed ", out);
    return flags;
}

template int getInt<unsigned int>(unsigned int&, const char*, Tcl_Interp*, MQBManager*);
template int atoiDec<unsigned int>(unsigned int&, const char*);
template int atoiDecNeg<unsigned int>(unsigned int&, const char*);
template int atoiHex<unsigned int>(unsigned int&, const char*);
template int atoiOctal<unsigned int>(unsigned int&, const char*);
template int atoiBin<unsigned int>(unsigned int&, const char*);

}  // namespace Utils
