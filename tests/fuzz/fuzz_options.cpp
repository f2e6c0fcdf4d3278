// fuzz_options.cpp: libFuzzer target for the kiv command's value converter
// (Utils::getInt) and its option parsers (-ops, -lba, -translen, -devices).
// The first byte picks the parser; the rest is the option value.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "Parsers.h"
#include "Utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    Tcl_Interp* interp = fuzzInterp();
    MQBManager* manager = fuzzManager();
    // Option values reach the parsers as C strings: stop at the first NUL.
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const char* v = text.c_str();
    switch (data[0] % 5) {
    case 0: {
        unsigned int out = 0;
        Utils::getInt(out, v, interp, manager);
        break;
    }
    case 1: {
        int ops = 0;
        parseOpInfo(manager, v, ops, interp);
        break;
    }
    case 2: {
        double low = 0, high = 0;
        parseLBAInfo(v, low, high, manager, interp);
        break;
    }
    case 3: {
        unsigned int low = 0, high = 0;
        parseTLInfo(v, low, high, manager, interp);
        break;
    }
    default: {
        unsigned int list[256];
        int n = getDevices(manager, interp, v, list);
        if (n < 0 || n > 255) __builtin_trap();  // the list holds 255 indexes
        break;
    }
    }
    Tcl_ResetResult(interp);
    return 0;
}
