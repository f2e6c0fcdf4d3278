// Parsers.cpp: the value parsers of the kiv options -ops, -lba, -translen and
// -devices, all built on Utils::getInt. Each works on its own copy of the text.
#include "Parsers.h"

#include <cstdlib>
#include <cstring>

#include "Utils.h"

// Converts -ops; `ops` gets whatever getInt produced, even on failure.
// Returns getInt's flags.
int parseOpInfo(MQBManager* manager, const char* text, int& ops, Tcl_Interp* interp) {
    unsigned int n = 0;
    int rc = Utils::getInt(n, text, interp, manager);
    ops = (int)n;
    return rc;
}

// Converts one bound of -lba (the part is modified in place). "<n>%" gives
// n/100 capped at 1.0, a plain number the number itself (an LBA past 32 bits
// included). Returns 0, getInt's flags, or 1 when a percent sign is not the
// part's last character.
static int parseLBAPart(char* part, double& bound, MQBManager* manager, Tcl_Interp* interp) {
    unsigned int n = 0;
    char* pct = strchr(part, '%');
    if (pct != nullptr) {
        if (pct[1] != '\0') return 1;
        *pct = '\0';
        int rc = Utils::getInt(n, part, interp, manager);
        if (rc != 0) return rc;
        bound = n / 100.0;
        if (bound > 1.0) bound = 1.0;
        return 0;
    }
    uint64_t wide = 0;
    if (Utils::getWide(wide, part) && wide > 0xFFFFFFFFull) {
        bound = (double)wide;
        return 0;
    }
    int rc = Utils::getInt(n, part, interp, manager);
    if (rc != 0) return rc;
    bound = (double)n;
    return 0;
}

// Converts "<h>" or "<l>:<h>" into LBA bounds; without a colon `low` is 0.
// The low bound is stored before the high one is read, so a bad high part
// still leaves it written. Returns 0 or the failing part's code.
int parseLBAInfo(const char* text, double& low, double& high, MQBManager* manager,
                 Tcl_Interp* interp) {
    char* copy = strdup(text);
    char* colon = strchr(copy, ':');
    int rc;
    if (colon == nullptr) {
        low = 0.0;
        rc = parseLBAPart(copy, high, manager, interp);
    } else {
        *colon = '\0';
        rc = parseLBAPart(copy, low, manager, interp);
        if (rc == 0) rc = parseLBAPart(colon + 1, high, manager, interp);
    }
    free(copy);
    return rc;
}

// Converts "<n>" (a fixed length: low = high = n) or "<l>:<h>", where colons
// after the first are dropped from the high part. A high below the low pulls the
// low down to it. Returns 0 or getInt's flags of the first failing part.
int parseTLInfo(const char* text, unsigned int& low, unsigned int& high,
                MQBManager* manager, Tcl_Interp* interp) {
    char* copy = strdup(text);
    char* colon = strchr(copy, ':');
    int rc = 0;
    if (colon == nullptr) {
        low = 0;
        rc = Utils::getInt(high, copy, interp, manager);
        if (rc == 0) low = high;
    } else {
        *colon = '\0';
        // Squeeze the remaining colons out of the high part.
        char* dst = colon + 1;
        for (const char* src = colon + 1; *src; ++src)
            if (*src != ':') *dst++ = *src;
        *dst = '\0';
        rc = Utils::getInt(low, copy, interp, manager);
        if (rc == 0) rc = Utils::getInt(high, colon + 1, interp, manager);
    }
    free(copy);
    if (rc != 0) return rc;
    if (high < low) low = high;
    return 0;
}

// Reads space-separated device indexes into `list` (255 at most). Returns how
// many were stored, or 0 with the reason in the interpreter result (or, for a
// negative or too-large number, on standard error).
int getDevices(MQBManager* manager, Tcl_Interp* interp, const char* text, unsigned int* list) {
    if (text[0] == '\0') {
        Tcl_SetResult(interp, (char*)"No devices to parse!", TCL_STATIC);
        return 0;
    }
    char* copy = strdup(text);
    int count = 0;
    char* save = nullptr;
    for (char* tok = strtok_r(copy, " ", &save); tok != nullptr; tok = strtok_r(nullptr, " ", &save)) {
        if (count == 255) {
            Tcl_SetResult(interp, (char*)"too many devices", TCL_STATIC);
            free(copy);
            return 0;
        }
        if (Utils::getInt(list[count], tok, interp, manager) != 0) {
            free(copy);
            return 0;
        }
        count++;
    }
    free(copy);
    if (count == 0) {
        Tcl_SetResult(interp, (char*)"no devices!", TCL_STATIC);
        return 0;
    }
    return count;
}
