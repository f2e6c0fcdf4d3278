// fuzz_errfile.cpp: libFuzzer target for the error control file parser. Each
// input is written to a private file and parsed into a fresh table; the table
// never holds more than 255 entries and every value agrees with its mask.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzSupport.h"
#include "KIVControl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Memory-backed when the machine has /dev/shm: thousands of files a second.
    static const std::string path =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/kiv_fuzz_errfile_" +
        std::to_string(getpid());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return 0;
    fwrite(data, 1, size, f);
    fclose(f);

    static KIVControl* ctl = new KIVControl();  // one table, reset as each kiv call does
    ctl->kcqCount = 0;
    for (int i = 0; i < 256; i++) ctl->kcqUec[i] = ctl->kcqUecMask[i] = 0;
    int rc = ctl->parseErrorFile(path.c_str());
    if (rc != 0 && rc != -13 && rc != -112) __builtin_trap();
    if (ctl->kcqCount < 0 || ctl->kcqCount > 255) __builtin_trap();
    for (int i = 0; i < ctl->kcqCount; i++) {
        if ((ctl->kcqKey[i] & ctl->kcqKeyMask[i]) != ctl->kcqKey[i] ||
            (ctl->kcqCode[i] & ctl->kcqCodeMask[i]) != ctl->kcqCode[i] ||
            (ctl->kcqQual[i] & ctl->kcqQualMask[i]) != ctl->kcqQual[i] ||
            (ctl->kcqUec[i] & ctl->kcqUecMask[i]) != ctl->kcqUec[i])
            __builtin_trap();
    }
    return 0;
}
