// KIVLoop.h: the test of one device: set-up, command generation, completions.
//
// Fields that the interpreter's thread reads while a test thread runs the loop
// (the counters, the last command, `running`) are relaxed atomics: each is one
// aligned word written by its own thread and read whole by the other, which is
// exactly what a plain load/store compiles to, without a data race.
#pragma once
#include <atomic>
#include <cstdint>
#include "CDBStruct.h"

class KIVControl;
class MQBManager;
class MQB;

class KIVLoop {
public:
    std::atomic<bool>     running;
    // Set once the statistics pass has stopped the run (time over, kiv_run 0,
    // an interrupt). Final: an error report's PASS decision cannot undo it.
    std::atomic<bool>     stopRequested;
    std::atomic<uint64_t> lastLba;
    std::atomic<uint64_t> lastTL;
    std::atomic<uint32_t> lastCmd;
    uint32_t              outstanding;
    uint32_t              tag;
    uint32_t              blockSize;
    std::atomic<uint64_t> opsDone;
    std::atomic<uint64_t> blocksIssued;
    uint32_t              deviceIdx;
    bool                  hwCompare;
    std::atomic<int32_t>  errCount;
    bool                  errShown;
    CDBStruct             cdbs[128];
    uint64_t              revSavedLba, revSavedTL;
    uint64_t              repeatLba, repeatTL;
    bool                  revPending;
    bool                  skipPending;
    bool                  repeatActive;
    uint64_t              lastRevLba, lastRevTL;
    bool                  haveLastRev;   // a reversal has happened (nothing matches before)
    uint32_t              lastStatSec;
    KIVControl*           control;
    bool                  threadMode;
    uint64_t              minLba, maxLba;
    uint64_t              minTL, maxTL;
    uint32_t              qDepth;
    uint64_t              ops;
    bool                  opsPercent;    // the ops argument was -P (percent form)
    int32_t               skipFreq, reverseFreq, repeatFreq;
    int32_t               rawioLeft;
    int32_t               randStream;
    int32_t               testType;
    float                 mixRatio;
    int32_t               readPct, writePct, wrvPct, verifyPct;
    int32_t               dataBufferIdx;
    uint8_t*              userData;
    MQB*                  mqb;
    // CDB form of the data commands: 0 chooses per command (10 bytes where
    // the LBA and length fit, else 16), 10 or 16 as the device text forces.
    int                   cdbForm;

    // Class-wide, shared by every loop of the process.
    static uint8_t*             read_buff;
    static uint64_t             read_buff_size;
    static uint8_t*             write_buff;
    static uint64_t             write_buff_size;
    static std::atomic<int32_t> skip_count;
    static std::atomic<int32_t> reverse_count;
    static std::atomic<int32_t> repeat_count;
    static std::atomic<int32_t> rawio_counter;

    KIVLoop(KIVControl* control, MQBManager* mqbManager, int deviceIdx, bool threadMode,
            int testType, float mixRatio, int testCmd, int readPct, int writePct,
            int wrvPct, int verifyPct, double minLba, double maxLba, int minTL, int maxTL,
            int qDepth, int ops, int skipFreq, int reverseFreq, int repeatFreq,
            int rawioP, int randStream, int dataBufferIdx);
    ~KIVLoop();
    KIVLoop(const KIVLoop&) = delete;
    KIVLoop& operator=(const KIVLoop&) = delete;

    void run();
    // Stops the loop for good: sets stopRequested, then clears running.
    void requestStop();
    // True while the loop may send another command.
    bool keepGoing() const {
        return running.load(std::memory_order_relaxed) &&
               !stopRequested.load(std::memory_order_relaxed);
    }
    void loadFunc();
    void unloadFunc();
    uint32_t getSec();

    static int  hirand();
    static void generateRandomWriteBuffer();
    static void setSkipCount(int n);
    static void setReverseCount(int n);
    static void setRepeatCount(int n);
    static void setRawioCount(int n);   // sets 0 whatever n is

    // Makes sure read_buff holds at least `need` bytes. A buffer it replaces
    // is kept (reads of another loop may still land in it) until
    // releaseRetiredReadBuffers. Returns false, keeping the old buffer, when
    // the memory cannot be had.
    static bool reserveReadBuffer(uint64_t need);
    // Frees the buffers reserveReadBuffer replaced. Only while no loop runs.
    static void releaseRetiredReadBuffers();
    // The bytes read_buff must hold for this loop's largest read.
    uint64_t readBufferNeed() const { return (uint64_t)blockSize * maxTL + 1000; }

private:
    // Device preparation, the first phase of run(); false when the queueing
    // ioctls fail and the run must end before any command.
    bool prepareDevice();
    uint64_t drawTL();
    void sequentialStep();
    void streamAdvance();
    void streamStep();
};
