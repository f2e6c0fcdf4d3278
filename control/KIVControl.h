// KIVControl.h: the configuration and run state of a kiv test, with the run,
// statistics, error-handling and window operations. One global instance,
// `control`, lives from library load to unload.
//
// The class is split across files by concern: KIVControl.cpp (construction,
// defaults, setters), KIVControl_report.cpp (parameter report), KIVControl_run.cpp
// (run, threads, print), KIVControl_stats.cpp (statistics pass),
// KIVControl_errfile.cpp (error control file), KIVControl_errors.cpp (error
// reports and statistics), KIVControl_window.cpp (Tk status window).
#pragma once
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <tcl.h>

// The print buffer: the script "puts \"" followed by the lines test threads
// queue for the interpreter's thread. Lines stop being queued once it holds
// kPrintBufLimit characters.
constexpr size_t kPrintBufSize = 65535;
constexpr size_t kPrintBufLimit = 65000;
constexpr char   kPutsPrefix[] = "puts \"";
constexpr size_t kPutsPrefixLen = sizeof kPutsPrefix - 1;

class KIVLoop;
class MQBManager;
class Hashtable;
struct CDBStruct;

class KIVControl {
public:
    // Run state and threading
    Tcl_Interp*     interp;
    bool            running;
    pthread_mutex_t printMutex;
    char*           printBuf;        // kPrintBufSize bytes: kPutsPrefix + queued lines
    size_t          printLen;
    MQBManager*     mqbManager;
    bool            threadMode;
    KIVLoop*        loops[255];

    // Statistics state
    uint64_t prevOps[255];
    uint64_t curOps[255];
    uint64_t prevBlocks[255];
    uint64_t curBlocks[255];
    int      secondsPerReport;
    int      elapsedSec;
    int      nextReportSec;

    // Output choices
    char*    statCallback;
    char*    errCallback;
    char*    statLogfileName;
    FILE*    statLogfile;
    char*    errLogfileName;
    FILE*    errLogfile;
    // First failed write of each output file of a run: an errno value while it
    // waits to be reported, -1 once reported, 0 while every write succeeded.
    // errLogWriteErr is guarded by printMutex (test threads write that log).
    int      statLogWriteErr;
    int      errLogWriteErr;
    int      errStatWriteErr;
    bool     statAppend;
    bool     errorAppend;
    uint32_t lastReportMs;
    int      runTime;
    int      statMode;
    bool     statHeader;
    bool     printErrors;
    bool     errorHalt;

    // Test selection
    int   testType;
    float mixRatio;
    int   testCmd;
    int   dataBufferIdx;
    bool  hwCompare;
    int   readPct;
    int   writePct;
    int   wrvPct;
    int   verifyPct;
    int   devices[255];
    int   numDevices;
    char  testLabel[12];

    // Error control table
    int      kcqCount;
    uint8_t  kcqKey[256];
    uint8_t  kcqCode[256];
    uint8_t  kcqQual[256];
    uint8_t  kcqKeyMask[256];
    uint8_t  kcqCodeMask[256];
    uint8_t  kcqQualMask[256];
    uint16_t kcqUec[256];
    uint16_t kcqUecMask[256];
    bool     kcqHalt[256];

    // Ranges and pacing
    double minLba;
    double maxLba;
    int    minTL;
    int    maxTL;
    int    qDepth;
    int    ops;
    int    skipFreq;
    int    reverseFreq;
    int    repeatFreq;
    int    rawioP;
    int    randStream;

    // Error statistics and window bookkeeping
    Hashtable* errStats;
    Hashtable* errWidgets;
    char*      errStatFileName;
    FILE*      errStatFile;
    int        errHeaderPending;
    int        errWidgetCount;

    // Threads
    pthread_t threads[255];
    bool      threadCreated[255];   // the thread at this position exists and is to be joined

    // Class-wide
    static std::atomic<unsigned int> runcount;
    static unsigned int              time_start;
    static std::atomic<bool>         thread_start;
    static char                      cmdstr[5][5];

    KIVControl();
    ~KIVControl();
    KIVControl(const KIVControl&) = delete;
    KIVControl& operator=(const KIVControl&) = delete;

    // Configuration (KIVControl.cpp)
    void init(MQBManager* mgr, Tcl_Interp* interp);
    void setDefaults(MQBManager* mgr);
    bool isRunning();
    void setThreadMode(bool b);
    void setRunTime(int seconds);
    void setStatMode(int mode);
    void setSecondsPerReport(int seconds);
    void printStatHeader(bool b);
    void appendToStatLogfile(bool b);
    void appendToErrLogfile(bool b);
    void reportErrors(bool b);
    void haltOnError(bool b);
    void setQDepth(int n);
    void setOps(int n);
    void setDataBufferIdx(int n);
    void setSkipFreq(int n);
    void setReverseFreq(int n);
    void setRepeatFreq(int n);
    void setRawioP(int n);
    void setRandStream(int n);
    void useHWC(bool b);
    void setTestType(int type, int percent);
    void setTestCmd(int cmd, int read, int write, int wrv, int verify);
    void setLbaRange(double min, double max);
    void setTLRange(int min, int max);
    void setDeviceList(int* list, int count);
    void setStatLogfile(const char* name);
    void setErrLogfile(const char* name);
    void setStatFile(const char* name);
    void setStatCallback(const char* script);
    void setErrCallback(const char* script);

    // Parameter report (KIVControl_report.cpp)
    void outputParms();

    // Run orchestration (KIVControl_run.cpp)
    int  run();
    void initLoop();
    static void* startThread(void* loop);
    void analyzeLoop();
    void finishLoop();
    // Ends a run that an exception is leaving (see RunGuard in run()).
    void abandonRun(bool started) noexcept;
    class RunGuard;
    // Ends a run the process is leaving mid-way (exit from a script during the
    // run): stops and joins the test threads, then flushes and closes the
    // output files. Makes no Tcl call. Nothing to do when no test runs.
    void stopForExit();
    // SIGINT and SIGTERM during a run: the first stops the test as kiv_run 0
    // would (the statistics pass sees interrupted()); a second within two
    // seconds ends the process by the signal's default action. catch installs
    // the handlers for the run, release restores the ones it replaced.
    static void catchInterrupts();
    static void releaseInterrupts();
    static bool interrupted();
    void print(const char* text);
    // Shows user-supplied text literally (no Tcl substitution).
    void printLiteral(const char* text);
    void printThreaded(const char* text);
    // Appends one line to the print buffer when printLen is at most `limit`;
    // the caller holds printMutex.
    void queueLineLocked(const char* text, size_t limit);
    int  tclEval(Tcl_Interp* interp, const char* script);
    uint32_t getMS();
    // Records errno in `err` when a write's result `rc` is negative and no
    // failure of that file is recorded yet.
    static void noteWrite(int rc, int& err);
    // Shows "KIV: <E> Could not write NAME: REASON" once for a recorded failure.
    void reportWriteErr(const char* name, int& err);
    // Flushes the statistics log and the error log and reports a first failure.
    void flushRunLogs();
    void closeRunFile(FILE*& file, char*& name, int& err);

    // Statistics (KIVControl_stats.cpp)
    void analyze(bool final);

    // Error control file (KIVControl_errfile.cpp)
    int  parseErrorFile(const char* path);
    bool isValidSense(char c);
    int  hexVal(char c);
    void processSense(char c1, char c2, int field, bool halt);
    void processUEC(char c1, char c2, char c3, char c4, bool halt);

    // Error reporting (KIVControl_errors.cpp)
    void testErr(KIVLoop* loop, int status, unsigned char* sense, int senseLength,
                 CDBStruct* record);
    void checkErr();
    void generateStatFile();

    // Status window (KIVControl_window.cpp)
    void setupWindow();
    void updateErrWindow();
    int  addErrWidget(char* key);
    void finalizeWindow();
};

extern KIVControl control;
