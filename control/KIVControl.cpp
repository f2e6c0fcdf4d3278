// KIVControl.cpp: KIVControl as a configuration record: construction and
// destruction of the one global `control`, the class-wide members, init and
// setDefaults (with the table of drivers that run single-threaded), and the
// setters through which the kiv command stores each option.
#include "KIVControl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Hashtable.h"
#include "MQB.h"
#include "MQBManager.h"

KIVControl control;

std::atomic<unsigned int> KIVControl::runcount{0};
unsigned int              KIVControl::time_start = 0;
std::atomic<bool>         KIVControl::thread_start{false};
char                      KIVControl::cmdstr[5][5] = {"r10", "w10", "rw10", "wrv", "vfy"};

namespace {

// Frees an owned string and clears the pointer.
void freeString(char*& s) {
    free(s);
    s = nullptr;
}

// Replaces an owned string with a private copy of `text` (null clears it).
void copyString(char*& field, const char* text) {
    char* copy = nullptr;
    if (text != nullptr) {
        size_t len = strlen(text);
        copy = static_cast<char*>(malloc(len + 1));
        if (copy != nullptr) memcpy(copy, text, len + 1);
    }
    free(field);
    field = copy;
}

// True when the driver type (the info text before its first ':') is one whose
// tests run in the interpreter's thread by default. "zorva" matches on its first
// five characters, so the whole family of that driver is included; the others
// must match exactly.
bool singleThreadedDriver(const char* type) {
    if (strncmp(type, "zorva", 5) == 0) return true;
    static const char* const exact[] = {"zebrant", "mendro", "lumiratorix", "quex"};
    for (const char* name : exact) {
        if (strcmp(type, name) == 0) return true;
    }
    return false;
}

}  // namespace

// Every field starts at zero, false or null except the few with their own
// start values; the print mutex is usable from the first moment, since even a
// single-threaded run reports errors through the print buffer.
KIVControl::KIVControl()
    : interp(nullptr), running(false), printMutex(PTHREAD_MUTEX_INITIALIZER),
      printBuf(nullptr), printLen(0), mqbManager(nullptr), threadMode(false),
      loops(), prevOps(), curOps(), prevBlocks(), curBlocks(),
      secondsPerReport(0), elapsedSec(0), nextReportSec(0),
      statCallback(nullptr), errCallback(nullptr), statLogfileName(nullptr),
      statLogfile(nullptr), errLogfileName(nullptr), errLogfile(nullptr),
      statLogWriteErr(0), errLogWriteErr(0), errStatWriteErr(0),
      statAppend(false), errorAppend(false), lastReportMs(0), runTime(0), statMode(0),
      statHeader(false), printErrors(false), errorHalt(false),
      testType(0), mixRatio(0.0f), testCmd(0), dataBufferIdx(-1), hwCompare(false),
      readPct(0), writePct(0), wrvPct(0), verifyPct(0), devices(), numDevices(0),
      testLabel(),
      kcqCount(0), kcqKey(), kcqCode(), kcqQual(), kcqKeyMask(), kcqCodeMask(),
      kcqQualMask(), kcqUec(), kcqUecMask(), kcqHalt(),
      minLba(0.0), maxLba(0.0), minTL(0), maxTL(0), qDepth(0), ops(0), skipFreq(0),
      reverseFreq(0), repeatFreq(0), rawioP(0), randStream(0),
      errStats(nullptr), errWidgets(nullptr), errStatFileName(nullptr),
      errStatFile(nullptr), errHeaderPending(1), errWidgetCount(0),
      threads(), threadCreated() {
    printBuf = static_cast<char*>(calloc(kPrintBufSize, 1));
    errStats = new Hashtable();
    errWidgets = new Hashtable();
}

// Releases the owned strings, the print buffer and both hash tables.
KIVControl::~KIVControl() {
    freeString(statCallback);
    freeString(errCallback);
    freeString(statLogfileName);
    freeString(errLogfileName);
    freeString(errStatFileName);
    free(printBuf);
    printBuf = nullptr;
    delete errStats;
    errStats = nullptr;
    delete errWidgets;
    errWidgets = nullptr;
}

// Binds the object to the host's manager and interpreter for one kiv call and
// resets the configuration.
void KIVControl::init(MQBManager* mgr, Tcl_Interp* ip) {
    interp = ip;
    mqbManager = mgr;
    setDefaults(mgr);
}

// Puts every setting back to its default. The append flags, the command
// percentages and the error-table slots (other than the UECs) are kept on
// purpose: they carry over from one kiv call to the next.
void KIVControl::setDefaults(MQBManager* mgr) {
    threadMode = true;
    numDevices = 0;
    errHeaderPending = 1;

    if (errWidgets != nullptr) errWidgets->removeAll();
    if (errStats != nullptr) errStats->removeAll();

    MQB* mqb = (mgr != nullptr) ? mgr->getCurrentMQB() : nullptr;
    if (mqb == nullptr) {
        // Shows as two lines: the warning, then "!".
        print("KIV: <W> No MQB's loaded\n!");
    } else {
        char info[80];
        info[0] = '\0';
        mqb->infoString(info, sizeof info);
        info[sizeof info - 1] = '\0';
        char* colon = strchr(info, ':');
        if (colon != nullptr) *colon = '\0';
        if (singleThreadedDriver(info)) threadMode = false;
        if (mqb->deviceCount() != 0) {
            devices[0] = mqb->getCurrentDeviceIndex();
            numDevices = 1;
        }
    }

    freeString(statCallback);
    freeString(errCallback);
    freeString(statLogfileName);
    freeString(errLogfileName);
    freeString(errStatFileName);

    statHeader = true;
    printErrors = true;
    errorHalt = false;
    mixRatio = 0.1f;
    hwCompare = false;
    time_start = 0;
    runTime = 30;
    maxLba = 1.0;
    statMode = 2;
    kcqCount = 0;
    testType = 2;
    testCmd = 0;
    minLba = 0.0;
    minTL = 1;
    maxTL = 64;
    ops = 0;
    qDepth = 1;
    secondsPerReport = 1;
    skipFreq = 0;
    reverseFreq = 0;
    repeatFreq = 0;
    rawioP = 0;
    randStream = 0;
    dataBufferIdx = -1;
    memset(kcqUec, 0, sizeof kcqUec);
    memset(kcqUecMask, 0, sizeof kcqUecMask);
}

bool KIVControl::isRunning() { return running; }

void KIVControl::setThreadMode(bool b) { threadMode = b; }
void KIVControl::setRunTime(int seconds) { runTime = seconds; }
void KIVControl::setStatMode(int mode) { statMode = mode; }
void KIVControl::setSecondsPerReport(int seconds) { secondsPerReport = seconds; }
void KIVControl::printStatHeader(bool b) { statHeader = b; }
void KIVControl::appendToStatLogfile(bool b) { statAppend = b; }
void KIVControl::appendToErrLogfile(bool b) { errorAppend = b; }
void KIVControl::reportErrors(bool b) { printErrors = b; }
void KIVControl::haltOnError(bool b) { errorHalt = b; }
void KIVControl::setQDepth(int n) { qDepth = n; }
void KIVControl::setOps(int n) { ops = n; }
void KIVControl::setDataBufferIdx(int n) { dataBufferIdx = n; }
void KIVControl::setSkipFreq(int n) { skipFreq = n; }
void KIVControl::setReverseFreq(int n) { reverseFreq = n; }
void KIVControl::setRepeatFreq(int n) { repeatFreq = n; }
void KIVControl::setRawioP(int n) { rawioP = n; }
void KIVControl::setRandStream(int n) { randStream = n; }
void KIVControl::useHWC(bool b) { hwCompare = b; }

// Selects the test type. A bad type falls back to random; for the mixed type a
// percentage strictly between 0 and 100 becomes the random share, anything
// else leaves the ratio as it was. Complaints go to the process's stdout.
void KIVControl::setTestType(int type, int percent) {
    if (type < 0 || type > 4) {
        printf("Error: Invalid Type!\n");
        fflush(stdout);
        testType = 0;
        return;
    }
    testType = type;
    if (type != 2) return;
    if (percent > 100) {
        printf("Error: Percent > 100!\n");
        fflush(stdout);
        return;
    }
    if (percent < 0) {
        printf("Error: Percent < 0!\n");
        fflush(stdout);
        return;
    }
    if (percent == 0 || percent == 100) return;
    mixRatio = static_cast<float>(percent) / 100.0f;
}

// Stores the command code and the four percentages. An unknown code becomes
// READ(10); the percentages were already checked by the kiv command.
void KIVControl::setTestCmd(int cmd, int read, int write, int wrv, int verify) {
    if (cmd < 0 || cmd > 4) {
        printf("Error: Invalid Command type!  Using Read10");
        fflush(stdout);
        cmd = 0;
    }
    readPct = read;
    writePct = write;
    wrvPct = wrv;
    verifyPct = verify;
    testCmd = cmd;
}

// Stores the LBA bounds (fractions of the capacity below 1.1, else absolute),
// correcting a negative minimum and a non-positive maximum.
void KIVControl::setLbaRange(double min, double max) {
    if (min < 0) {
        print("KIV: <W> minlba < 0! setting to 0");
        min = 0;
    }
    if (!(max > 0)) {
        print("KIV: <W> maxlba <= 0! setting to 1.0");
        max = 1.0;
    }
    minLba = min;
    maxLba = max;
}

// Stores the transfer-length bounds, raising each to at least one block.
void KIVControl::setTLRange(int min, int max) {
    auto atLeastOne = [this](int& tl, const char* warning) {
        if (tl < 1) {
            print(warning);
            tl = 1;
        }
    };
    atLeastOne(min, "KIV: <W> min_tl < 1! setting to 1");
    atLeastOne(max, "KIV: <W> max_tl < 1! setting to 1");
    minTL = min;
    maxTL = max;
}

// Copies up to 255 device indexes; a count below 1 empties the list.
void KIVControl::setDeviceList(int* list, int count) {
    if (count > 255) {
        print("KIV: <W> Max 255 devices!  Trucating to 255 devices");
        count = 255;
    }
    if (count >= 1 && list != nullptr) {
        memcpy(devices, list, sizeof(int) * static_cast<size_t>(count));
        numDevices = count;
    } else {
        numDevices = 0;
    }
}

void KIVControl::setStatLogfile(const char* name) { copyString(statLogfileName, name); }
void KIVControl::setErrLogfile(const char* name) { copyString(errLogfileName, name); }
void KIVControl::setStatFile(const char* name) { copyString(errStatFileName, name); }
void KIVControl::setStatCallback(const char* script) { copyString(statCallback, script); }
void KIVControl::setErrCallback(const char* script) { copyString(errCallback, script); }
