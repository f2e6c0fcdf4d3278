// KIVControl_report.cpp: the parameter report printed before every run, one
// line per setting, so a console log shows how the test was set up.
#include "KIVControl.h"

#include <cstdio>
#include <cstring>

namespace {

// An LBA bound strictly between 0 and 1.1 is a fraction of the capacity.
bool isFraction(double b) { return b > 0 && b < 1.1; }

}  // namespace

// Prints the report through print, one call per line. Lines that carry text the
// user typed (callback scripts, file names) go through printLiteral so that the
// interpreter shows them as given instead of substituting into them. Changes
// nothing.
void KIVControl::outputParms() {
    // The device line is the longest: 28 characters of label plus up to 255
    // indexes of at most 10 digits and a blank each.
    static char line[4096];

    print("KIV Parameters:");
    print("-----------------------------------------");
    print(threadMode ? "Thread Mode: multi" : "Thread Mode: single");
    print(hwCompare ? "Data Mode: Random With Keyed LBA And Hardware Compare"
                    : "Data Mode: Random");

    auto userLine = [this](const char* label, const char* text) {
        if (text != nullptr) {
            snprintf(line, sizeof line, "%s: %s", label, text);
            printLiteral(line);
        } else {
            snprintf(line, sizeof line, "%s: <none>", label);
            print(line);
        }
    };

    userLine("Stat Callback", statCallback);
    snprintf(line, sizeof line, "Seconds Per Report: %u", (unsigned)secondsPerReport);
    print(line);
    userLine("Err Callback", errCallback);
    userLine("Stat Logfile", statLogfileName);
    print(statAppend ? "Append To Statlog: Yes" : "Append To Statlog: No");
    userLine("Err Logfile", errLogfileName);
    userLine("Error Stat File", errStatFileName);
    print(errorAppend ? "Append To Errlog: Yes" : "Append To Errlog: No");
    snprintf(line, sizeof line, "Run Time: %d", runTime);
    print(line);

    switch (statMode) {
    case 0: print("Stat Output Mode: <none>"); break;
    case 1: print("Stat Output Mode: Terminal"); break;
    case 2: print("Stat Output Mode: Window"); break;
    default: print("Stat Output Mode: <ERROR>"); break;
    }
    print(statHeader ? "Stat Header: Yes" : "Stat Header: No");
    print(printErrors ? "Report Errors: Yes" : "Report Errors: No");
    print(errorHalt ? "Halt On Error: Yes" : "Halt On Error: No");

    switch (testType) {
    case 0: print("Test Type: Random"); break;
    case 1: print("Test Type: Sequential"); break;
    case 2:
        print("Test Type: Mixed");
        snprintf(line, sizeof line, "Mix Ratio R%%: %2.2f", (double)mixRatio);
        print(line);
        break;
    case 3: print("Test Type: Packed"); break;
    case 4: print("Test Type: Sequential Stream"); break;
    default: print("Test Type: <ERROR>"); break;
    }

    print("Test Command:");
    const struct { int pct; const char* name; } mix[] = {
        {readPct, "Read10"}, {writePct, "Write10"}, {wrvPct, "WriteAndVerify10"}, {verifyPct, "Verify"}};
    for (const auto& m : mix) {
        if (m.pct == 0) continue;
        snprintf(line, sizeof line, " %d%% %s", m.pct, m.name);
        print(line);
    }

    if (isFraction(minLba)) snprintf(line, sizeof line, "Min Lba: %2.0f%%", minLba * 100);
    else                    snprintf(line, sizeof line, "Min Lba: %3.0f", minLba);
    print(line);
    if (isFraction(maxLba)) snprintf(line, sizeof line, "Max Lba: %2.0f%%", maxLba * 100);
    else                    snprintf(line, sizeof line, "Max Lba: %3.0f", maxLba);
    print(line);

    snprintf(line, sizeof line, "Min TL: %u", (unsigned)minTL);
    print(line);
    snprintf(line, sizeof line, "Max TL: %u", (unsigned)maxTL);
    print(line);
    snprintf(line, sizeof line, "QDepth: %u", (unsigned)qDepth);
    print(line);
    // Zero and negative counts are percentages of the LBA range (0 = no limit).
    if (ops > 0) snprintf(line, sizeof line, "Ops: %u", (unsigned)ops);
    else         snprintf(line, sizeof line, "Ops: %u%%", 0u - (unsigned)ops);
    print(line);
    if (dataBufferIdx >= 0) snprintf(line, sizeof line, "Data Buffer Index: %d", dataBufferIdx);
    else                    snprintf(line, sizeof line, "Data Buffer Index: None");
    print(line);

    size_t len = (size_t)snprintf(line, sizeof line, "%s",
                                  numDevices > 1 ? "Indexes of Devices to test: "
                                                 : "Index of Device to test: ");
    int n = numDevices > 255 ? 255 : numDevices;
    for (int i = 0; i < n && len < sizeof line; ++i)
        len += (size_t)snprintf(line + len, sizeof line - len, "%u ", (unsigned)devices[i]);
    print(line);
}
