// KIVControl_errfile.cpp: the error control file parser. Each line of the file
// names one kind of device error (sense key, code, qualifier and optional UECs,
// with per-nibble wildcards) and says whether it halts the device's test or
// passes; the entries go into the error control table that testErr consults.
#include "KIVControl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "RegularFile.h"

namespace {

// Blanks between fields: space and tab only, so a carriage return is a
// character like any other and fails a field.
bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Result of the parse for a malformed file.
constexpr int kParseFailed = -13;
// Result when the file cannot be opened.
constexpr int kFileNotFound = -111;
// Result for a path that is not a regular file, or a file past kMaxFileBytes.
constexpr int kFileIO = -112;
// No useful error control file comes near this size (255 entries of a few
// dozen characters, plus comments); reading stops here.
constexpr long kMaxFileBytes = 1 << 20;

// Reads one line of at most `size` - 1 characters into `buf` as fgets does
// (stopping after a line feed), but returns its length so that a NUL byte is
// a character like any other. Adds the bytes read to `total`. Returns false at
// end of file with nothing read.
bool readLine(FILE* f, char* buf, size_t size, size_t& len, long& total) {
    len = 0;
    int c = 0;
    while (len + 1 < size && (c = getc(f)) != EOF) {
        buf[len++] = (char)c;
        if (c == '\n') break;
    }
    buf[len] = '\0';
    total += (long)len;
    return len > 0;
}

}  // namespace

// True for a hexadecimal digit or the nibble wildcard x/X.
bool KIVControl::isValidSense(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
           c == 'x' || c == 'X';
}

// The value of a hexadecimal digit, or -1 for anything else (wildcards included).
int KIVControl::hexVal(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Stores one two-character field of the entry being read (slot kcqCount): field
// 0 the key, 1 the code, 2 the qualifier. The qualifier completes the entry,
// announces it on stdout and counts it, unless the table is already full.
void KIVControl::processSense(char c1, char c2, int field, bool halt) {
    int h1 = hexVal(c1);
    int h2 = hexVal(c2);
    uint8_t value = (uint8_t)(((h1 >= 0 ? h1 : 0) << 4) | (h2 >= 0 ? h2 : 0));
    uint8_t mask = (uint8_t)((h1 >= 0 ? 0xF0 : 0) | (h2 >= 0 ? 0x0F : 0));

    switch (field) {
    case 0:
        kcqKey[kcqCount] = value;
        kcqKeyMask[kcqCount] = mask;
        break;
    case 1:
        kcqCode[kcqCount] = value;
        kcqCodeMask[kcqCount] = mask;
        break;
    case 2:
        if (kcqCount >= 255) {
            printf("<W> Max 255 kcq entries, ignoring entry!\n");
            fflush(stdout);
            break;
        }
        kcqHalt[kcqCount] = halt;
        kcqQual[kcqCount] = value;
        kcqQualMask[kcqCount] = mask;
        printf("<I> Added KCQ to error count: KCQ = %02X %02X %02X MASK = %02X %02X %02X HALT=%u\n",
               kcqKey[kcqCount], kcqCode[kcqCount], kcqQual[kcqCount], kcqKeyMask[kcqCount],
               kcqCodeMask[kcqCount], kcqQualMask[kcqCount], halt ? 1u : 0u);
        fflush(stdout);
        kcqCount++;
        break;
    default:
        break;
    }
}

// Stores a four-character UEC field into the entry the line's qualifier has just
// completed (slot kcqCount - 1); a later UEC field of the same line replaces it.
void KIVControl::processUEC(char c1, char c2, char c3, char c4, bool halt) {
    (void)halt;  // the qualifier already stored the line's flag
    if (kcqCount < 1) return;
    const char cs[4] = {c1, c2, c3, c4};
    uint16_t value = 0;
    uint16_t mask = 0;
    for (int i = 0; i < 4; ++i) {
        int h = hexVal(cs[i]);
        int shift = 12 - 4 * i;
        if (h >= 0) {
            value = (uint16_t)(value | (h << shift));
            mask = (uint16_t)(mask | (0xF << shift));
        }
    }
    kcqUec[kcqCount - 1] = value;
    kcqUecMask[kcqCount - 1] = mask;
}

// Reads the error control file at `path` and appends its entries to the table.
// Returns 0 on success, -111 when the file cannot be opened, -112 when it is
// not a regular file (a directory, a device, a pipe) or is longer than
// kMaxFileBytes, -13 at the first malformed line (entries read before it stay
// in the table). Messages go to the process's stdout.
int KIVControl::parseErrorFile(const char* path) {
    // Checked before anything is read, by an open that never waits: a named
    // pipe with no writer would otherwise hold the shell in the open.
    const int fd = mqb::openRegularFile(path, O_RDONLY);
    if (fd < 0 && errno == EINVAL && path != nullptr) {
        printf("<E> Error file %s is not a regular file\n", path);
        fflush(stdout);
        return kFileIO;
    }
    FILE* f = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (f == nullptr) {
        if (fd >= 0) close(fd);
        return kFileNotFound;
    }

    // A line longer than the buffer is read on as a line of its own.
    char buf[256];
    size_t len = 0;
    long total = 0;
    int result = 0;
    while (result == 0 && readLine(f, buf, sizeof buf, len, total)) {
        // Checked as the bytes come, not from the size: some files (in /proc,
        // say) report one size and hold another.
        if (total > kMaxFileBytes) {
            printf("<E> Error file %s is longer than %ld bytes, stopped reading\n", path,
                   kMaxFileBytes);
            result = kFileIO;
            break;
        }
        if (len < 2) continue;

        bool inFields = false;
        bool halt = false;
        // The qualifier of this line found the table full: its UECs are still
        // checked but must not land in the last counted entry.
        bool refused = false;
        int field = 0;
        size_t i = 0;
        // The line's final character (normally its newline) is never examined.
        while (i + 1 < len) {
            char c = buf[i];
            if (isBlank(c)) {
                ++i;
                continue;
            }
            if (!inFields) {
                if (c == '#' || (c == '/' && buf[i + 1] == '/')) break;
                if (strncmp(buf + i, "halt", 4) == 0 || strncmp(buf + i, "HALT", 4) == 0) {
                    halt = true;
                } else if (strncmp(buf + i, "pass", 4) == 0 || strncmp(buf + i, "PASS", 4) == 0) {
                    halt = false;
                } else {
                    printf("<E> Keyword needs to be HALT or PASS\n");
                    result = kParseFailed;
                    break;
                }
                i += 4;
                inFields = true;
                continue;
            }
            bool ok = isValidSense(buf[i]) && isValidSense(buf[i + 1]);
            if (ok && field >= 3) ok = isValidSense(buf[i + 2]) && isValidSense(buf[i + 3]);
            if (!ok) {
                printf("<E> Parse Format");
                result = kParseFailed;
                break;
            }
            if (field <= 2) {
                if (field == 2 && kcqCount >= 255) refused = true;
                processSense(buf[i], buf[i + 1], field, halt);
                i += 2;
            } else {
                if (!refused) processUEC(buf[i], buf[i + 1], buf[i + 2], buf[i + 3], halt);
                i += 4;
            }
            ++field;
        }
    }
    fflush(stdout);
    fclose(f);
    return result;
}
