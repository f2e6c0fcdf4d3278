// KIVControl_run.cpp: running a test from start to end: the loops, the test
// threads and the interpreter's polling of them, the output files of a run
// (the output channels and the clock are in KIVControl_output.cpp).
#include "KIVControl.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include "KIVLoop.h"
#include "Metrics.h"
#include "RegularFile.h"

namespace {
// Time the interpreter's thread waits between drains of the print buffer.
const useconds_t kPollSleepUs = 250000;

// Interrupt state shared with the signal handler: lock-free atomics only.
std::atomic<bool>    interruptSeen{false};
std::atomic<int64_t> interruptAtMs{0};
// A second interrupt this soon after the first ends the process.
constexpr int64_t kSecondInterruptMs = 2000;
struct sigaction savedInt, savedTerm;
bool interruptsCaught = false;

// Monotonic milliseconds; clock_gettime is safe in a signal handler.
int64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Notes the interrupt for the statistics pass; a repeat within two seconds
// takes the signal's default action (the process ends as if never caught).
// Leaves errno as it found it.
void onInterrupt(int sig) {
    const int savedErrno = errno;
    int64_t now = monotonicMs();
    if (interruptSeen.load() && now - interruptAtMs.load() < kSecondInterruptMs) {
        signal(sig, SIG_DFL);
        raise(sig);
        return;
    }
    interruptAtMs.store(now);
    interruptSeen.store(true);
    errno = savedErrno;
}
// Opens a run's output file for writing, appending or truncating, with an
// open that never waits: a named pipe, a socket or a directory is refused
// (null), a regular file or a character device such as /dev/null is taken.
FILE* openRunFile(const char* name, bool append) {
    const int fd = mqb::openRegularFile(name, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC),
                                        0666, mqb::FileKinds::RegularOrCharDevice);
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, append ? "a" : "w");
    if (!f) close(fd);
    return f;
}
}  // namespace

// Whatever way run() is left, the object is left as a normal end leaves it:
// a run given up by an exception is ended by abandonRun. A run that ended
// normally (or was refused) has `running` false, and the guard does nothing.
class KIVControl::RunGuard {
public:
    explicit RunGuard(KIVControl& c) : c_(c) {}
    ~RunGuard() {
        if (c_.running) c_.abandonRun(started);
    }
    RunGuard(const RunGuard&) = delete;
    RunGuard& operator=(const RunGuard&) = delete;
    bool started = false;  // past set-up: the window, kiv_run and the handlers are the run's

private:
    KIVControl& c_;
};

// Ends a run left by an exception: every loop is told to stop; during set-up
// the loops built so far are destroyed, afterwards finishLoop ends the run as
// usual (threads joined, files closed, window finished, kiv_run 0, the
// interrupt handlers restored, "KIV: test complete"). Should that fail too,
// at least kiv_run, `running` and the handlers are put back. Never throws.
void KIVControl::abandonRun(bool started) noexcept {
    try {
        for (int i = 0; i < numDevices; i++)
            if (loops[i]) loops[i]->requestStop();
        if (started) {
            finishLoop();
            return;
        }
        for (int i = 0; i < numDevices; i++) {
            delete loops[i];
            loops[i] = nullptr;
        }
    } catch (...) {
        if (started) Tcl_SetVar2(interp, "kiv_run", nullptr, "0", TCL_GLOBAL_ONLY);
    }
    running = false;
    releaseInterrupts();
}

void KIVControl::catchInterrupts() {
    interruptSeen.store(false);
    if (interruptsCaught) return;
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, &savedInt);
    sigaction(SIGTERM, &sa, &savedTerm);
    interruptsCaught = true;
}

void KIVControl::releaseInterrupts() {
    if (!interruptsCaught) return;
    sigaction(SIGINT, &savedInt, nullptr);
    sigaction(SIGTERM, &savedTerm, nullptr);
    interruptsCaught = false;
}

bool KIVControl::interrupted() { return interruptSeen.load(); }

// Starts the configured test and returns when it is over. Prints the parameter
// report, builds one loop per device and runs it here (single-threaded) or in
// one thread per loop polled from here (multi-threaded). A refused run (no
// device, or a device that cannot be set up) destroys what it built and leaves
// `running` false without touching kiv_run. A run left by an exception is
// ended first (abandonRun), then the exception goes on. Returns 0.
int KIVControl::run() {
    if (running) return 0;

    runcount.store(0);
    elapsedSec = 0;
    if (printBuf) {
        memcpy(printBuf, kPutsPrefix, kPutsPrefixLen);
        printBuf[kPutsPrefixLen] = '\0';
    }
    printLen = kPutsPrefixLen;
    nextReportSec = secondsPerReport;
    time_start = 0;

    outputParms();

    switch (testType) {
    case 0: snprintf(testLabel, sizeof testLabel, "rand"); break;
    case 1: snprintf(testLabel, sizeof testLabel, "seq"); break;
    case 3: snprintf(testLabel, sizeof testLabel, "pkd"); break;
    case 4: snprintf(testLabel, sizeof testLabel, "stream"); break;
    default: {
        // The ratio is single precision: 0.9f widens to 0.89999997, hence 89/11.
        unsigned r = (unsigned)((double)mixRatio * 100.0);
        snprintf(testLabel, sizeof testLabel, "%02u/%02u", r, 100 - r);
        break;
    }
    }

    if (threadMode) {
        if (numDevices == 0) {
            print("KIV: <E> No drives selected for test!  Aborting...");
            return 0;
        }
    } else {
        if (numDevices > 1) {
            print("KIV: <I> Cannot support multiple drives in single threaded mode.  "
                  "Will only test first drive in list...");
            numDevices = 1;
        }
        if (numDevices == 0) {
            print("KIV: <E> No drives selected for test!  Aborting...");
            return 0;
        }
    }

    running = true;
    RunGuard guard(*this);
    for (int i = 0; i < numDevices; i++) {
        loops[i] = new KIVLoop(this, mqbManager, devices[i], threadMode, testType, mixRatio,
                               testCmd, readPct, writePct, wrvPct, verifyPct, minLba, maxLba,
                               minTL, maxTL, qDepth, ops, skipFreq, reverseFreq, repeatFreq,
                               rawioP, randStream, dataBufferIdx);
        loops[i]->hwCompare = hwCompare;
        threadCreated[i] = false;
        if (!loops[i]->running.load(std::memory_order_relaxed)) {
            print("Aborted KIV Due To Setup Problem (See above)");
            running = false;
        }
    }
    // Every loop shares the one read buffer: size it for the largest transfer
    // of any loop now, so no loop replaces it while another has reads in flight.
    // Memory that cannot be had refuses the run: reads would overrun the buffer.
    KIVLoop::releaseRetiredReadBuffers();
    for (int i = 0; running && i < numDevices; i++) {
        KIVLoop* l = loops[i];
        if (!KIVLoop::reserveReadBuffer(l->readBufferNeed())) {
            char msg[160];
            snprintf(msg, sizeof msg,
                     "KIV: <E> Could not allocate a read buffer of %llu bytes for device %d, "
                     "Out Of Memory",
                     (unsigned long long)l->readBufferNeed(), devices[i]);
            print(msg);
            print("Aborted KIV Due To Setup Problem (See above)");
            running = false;
            break;
        }
    }
    if (!running) {
        for (int i = 0; i < numDevices; i++) {
            delete loops[i];
            loops[i] = nullptr;
        }
        return 0;
    }

    guard.started = true;
    if (statMode == 2) setupWindow();
    Tcl_SetVar2(interp, "kiv_run", nullptr, "1", TCL_GLOBAL_ONLY);
    catchInterrupts();
    // The run's start, kept for a final statistics pass that comes before any
    // first pass (analyze takes it as the time base then).
    lastReportMs = getMS();
    mqb::runBegin(numDevices);

    if (!threadMode) {
        initLoop();
        loops[0]->run();
        finishLoop();
        return 0;
    }

    thread_start.store(false);
    print("");
    print("------------------------------------------------");
    print("| Creating A separate MQB for each test drive. |");
    print("| This make take time.  Please Be Patient...   |");
    print("------------------------------------------------");
    print("");
    initLoop();

    // runcount is raised before each thread exists, so the end test can never
    // see 0 while a created thread has not yet reached its loop.
    for (int i = 0; i < numDevices; i++) {
        runcount.fetch_add(1);
        if (pthread_create(&threads[i], nullptr, startThread, loops[i]) != 0) {
            runcount.fetch_sub(1);
            loops[i]->running.store(false, std::memory_order_relaxed);
            char msg[80];
            snprintf(msg, sizeof msg, "KIV: <E> Could not create test thread for device %d",
                     devices[i]);
            print(msg);
        } else {
            threadCreated[i] = true;
        }
    }
    analyzeLoop();
    return 0;
}

// Opens the run's output files (statistics log, error log, error statistics
// file) and writes the statistics header to the terminal and the log. A file
// that cannot be opened is reported and its name dropped; the run goes on.
void KIVControl::initLoop() {
    statLogWriteErr = 0;
    errLogWriteErr = 0;
    errStatWriteErr = 0;
    // A file that cannot be opened is said once and dropped for this run.
    const struct { char*& name; FILE*& file; bool append; const char* what; } logs[] = {
        {statLogfileName, statLogfile, statAppend, "stat logfile"},
        {errLogfileName, errLogfile, errorAppend, "error logfile"},
        {errStatFileName, errStatFile, false, "error stat file"}};
    for (const auto& log : logs) {
        if (!log.name) continue;
        log.file = openRunFile(log.name, log.append);
        if (!log.file) {
            char msg[64];
            snprintf(msg, sizeof msg, "KIV: <E> Could not open %s for writing", log.what);
            print(msg);
            free(log.name);
            log.name = nullptr;
        }
    }
    if (statHeader) {
        char header[128];
        snprintf(header, sizeof header, "%4s %5s %4s %9s %9s %4s %4s %8s %6s %7s", "Indx",
                 "Test", "Cmd", "Ops", "Last Lba", "TL", "Secs", "Ops/Sec", "mb/s", "errcnt");
        static const char rule[] =
            "---------------------------------------------------------------------";
        if (statMode == 1) {
            print(header);
            print(rule);
            print("");
        }
        if (statLogfileName) {
            noteWrite(fprintf(statLogfile, "%s\n%s\n", header, rule), statLogWriteErr);
        }
    }
}

// Body of one test thread: runs its loop to the end. The creator has already
// counted the thread in runcount; this lowers it when the loop returns. An
// exception ends that device's test with a message, never the process.
void* KIVControl::startThread(void* arg) {
    KIVLoop* loop = static_cast<KIVLoop*>(arg);
    printf("starting thread\n");
    fflush(stdout);
    thread_start.store(true);
    const char* why = nullptr;
    try {
        loop->run();
    } catch (const std::bad_alloc&) {
        why = "Out Of Memory";
    } catch (...) {
        why = "internal error";
    }
    if (why) {
        loop->running.store(false, std::memory_order_relaxed);
        char msg[120];
        snprintf(msg, sizeof msg, "KIV: <E> Test of device %u ended: %s", loop->deviceIdx, why);
        loop->control->printThreaded(msg);
    }
    runcount.fetch_sub(1);
    printf("exiting thread\n");
    fflush(stdout);
    return nullptr;
}

// The interpreter thread's side of a multi-threaded run: once a thread has
// started (or none could be), one statistics pass and four drains of the print
// buffer per second, with "update" between them, until every loop has ended;
// then the final pass and the end of the run.
void KIVControl::analyzeLoop() {
    while (!thread_start.load() && runcount.load() != 0) usleep(100);
    while (runcount.load() != 0) {
        analyze(false);
        for (int k = 0; k < 3; k++) {
            checkErr();
            usleep(kPollSleepUs);
            tclEval(interp, "update");
        }
        checkErr();
        usleep(kPollSleepUs);
    }
    analyze(true);
    finishLoop();
}

// Flushes and closes a run's output file (when it was opened), reports a first
// failed write (`err`) not yet shown, and releases the name, leaving both
// fields null.
void KIVControl::closeRunFile(FILE*& file, char*& name, int& err) {
    if (file) {
        noteWrite(fflush(file), err);
        noteWrite(fclose(file), err);
    }
    reportWriteErr(name, err);
    file = nullptr;
    free(name);
    name = nullptr;
}

void KIVControl::noteWrite(int rc, int& err) {
    if (rc < 0 && err == 0) err = errno != 0 ? errno : EIO;
}

void KIVControl::reportWriteErr(const char* name, int& err) {
    if (err <= 0) return;
    char msg[600];
    snprintf(msg, sizeof msg, "KIV: <E> Could not write %.400s: %s", name ? name : "?",
             strerror(err));
    err = -1;
    printLiteral(msg);
}

// Pushes what the statistics log and the error log hold to their files, so a
// run that is cut short loses at most one pass, and reports the first write of
// either that failed. The error log is shared with the test threads: stdio
// locks the stream itself, so the flush runs outside printMutex (a reporting
// thread never waits for the disk here); only the failure record is taken
// under it.
void KIVControl::flushRunLogs() {
    if (statLogfileName && statLogfile) {
        noteWrite(fflush(statLogfile), statLogWriteErr);
        reportWriteErr(statLogfileName, statLogWriteErr);
    }
    if (errLogfileName && errLogfile) {
        int flushErr = 0;
        noteWrite(fflush(errLogfile), flushErr);
        pthread_mutex_lock(&printMutex);
        if (errLogWriteErr == 0) errLogWriteErr = flushErr;
        int err = errLogWriteErr;
        if (err > 0) errLogWriteErr = -1;
        pthread_mutex_unlock(&printMutex);
        reportWriteErr(errLogfileName, err);
    }
}

// Ends a run in either mode: closes the files (writing the error statistics),
// finishes the window, sets kiv_run to 0, joins the test threads, destroys the
// loops, shows what is left in the print buffer and says the test is complete.
void KIVControl::finishLoop() {
    if (statLogfileName) closeRunFile(statLogfile, statLogfileName, statLogWriteErr);
    if (errLogfileName) closeRunFile(errLogfile, errLogfileName, errLogWriteErr);
    if (errStatFileName) {
        if (errStatFile) generateStatFile();
        closeRunFile(errStatFile, errStatFileName, errStatWriteErr);
    }
    if (statMode == 2) finalizeWindow();
    Tcl_SetVar2(interp, "kiv_run", nullptr, "0", TCL_GLOBAL_ONLY);
    running = false;
    mqb::runEnd();
    releaseInterrupts();

    // Every thread has lowered runcount by now, but may still be on its way out
    // of startThread: join it before its loop is destroyed.
    for (int i = 0; i < numDevices; i++) {
        if (threadCreated[i]) {
            pthread_join(threads[i], nullptr);
            threadCreated[i] = false;
        }
    }
    for (int i = 0; i < numDevices; i++) {
        delete loops[i];
        loops[i] = nullptr;
    }
    checkErr();
    print("KIV: test complete\\n");
}

// Called from the interpreter's exit handler, on the interpreter's thread: in a
// multi-threaded run that is inside analyzeLoop (an "update" ran the script
// that exits), in a single-threaded run inside the loop itself. The process
// ends right after, so the single loop is never resumed; test threads must be
// gone before the static objects they use are destroyed. Queued lines and
// write failures go straight to standard output: the interpreter is on its
// way out.
void KIVControl::stopForExit() {
    if (!running) return;
    for (int i = 0; i < numDevices; i++)
        if (loops[i]) loops[i]->requestStop();
    if (threadMode) {
        // Each loop drains what it has in flight; a device that never answers
        // times its commands out, so this ends. The bound only guards a wedge.
        for (int waited = 0; runcount.load() != 0 && waited < 30000; waited++) usleep(1000);
        if (runcount.load() == 0) {
            for (int i = 0; i < numDevices; i++) {
                if (threadCreated[i]) {
                    pthread_join(threads[i], nullptr);
                    threadCreated[i] = false;
                }
                delete loops[i];
                loops[i] = nullptr;
            }
        }
    }
    pthread_mutex_lock(&printMutex);
    if (printBuf && printLen > kPutsPrefixLen) fputs(printBuf + kPutsPrefixLen, stdout);
    printLen = kPutsPrefixLen;
    pthread_mutex_unlock(&printMutex);

    auto close = [](FILE*& file, char*& name, int& err) {
        if (file) {
            noteWrite(fflush(file), err);
            noteWrite(fclose(file), err);
            if (err > 0) printf("KIV: <E> Could not write %s: %s\n", name, strerror(err));
        }
        file = nullptr;
        free(name);
        name = nullptr;
    };
    if (statLogfileName) close(statLogfile, statLogfileName, statLogWriteErr);
    pthread_mutex_lock(&printMutex);
    if (errLogfileName) close(errLogfile, errLogfileName, errLogWriteErr);
    pthread_mutex_unlock(&printMutex);
    if (errStatFileName) {
        if (errStatFile) generateStatFile();
        close(errStatFile, errStatFileName, errStatWriteErr);
    }
    fflush(stdout);
    running = false;
    releaseInterrupts();
}
