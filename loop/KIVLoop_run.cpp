// KIVLoop_run.cpp: the run of a device loop (priming, main phase, drain), the
// completion handler and the loop's small helpers.
#include "KIVLoop.h"

#include <cstdio>
#include <cstdlib>
#include <sys/time.h>

#include "KIVControl.h"
#include "MQB.h"
#include "SenseParser.h"
#include "WallClock.h"

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
}

// The whole test of the device: reset, device preparation, priming to the queue
// depth, one command per completion until the operation count is reached or
// running is cleared, then a drain of everything in flight. Leaves running
// false, except when the device preparation failed.
void KIVLoop::run() {
    printf("KIVLoop called!");
    fflush(stdout);
    setSkipCount(0);
    setReverseCount(0);
    setRepeatCount(0);
    setRawioCount(0);
    tag = 0;
    outstanding = 0;
    opsDone.store(0, kRelaxed);
    blocksIssued.store(0, kRelaxed);
    errShown = false;
    if (!threadMode) lastStatSec = getSec();

    if (mqb == nullptr || !running.load(kRelaxed)) return;

    lastLba.store(minLba, kRelaxed);
    if (!prepareDevice()) return;

    if (qDepth > 1)
        for (uint32_t i = 1; i < qDepth; i++) loadFunc();

    // Counting the primed commands: the count that ends the run is reached
    // after ops - 1 commands when ops exceeds the queue depth.
    uint64_t count = qDepth;
    if (count != ops) {
        while (keepGoing()) {
            count++;
            loadFunc();
            unloadFunc();
            if (count == ops) break;
        }
    }

    while (outstanding > 0) unloadFunc();

    if (!threadMode) control->analyze(true);

    printf("KIV: Device %d testing complete", mqb->getCurrentDeviceIndex());
    fflush(stdout);
    running.store(false, kRelaxed);
}

// Takes one completion. A failed one is counted and handed to testErr, with
// its sense data, tag and CDB; the packed test moves its next LBA past a
// medium or recovered error's failing block. With nothing outstanding (a send
// was refused) there is nothing to wait for and nothing is counted. In
// single-threaded mode, also runs the statistics once per wall-clock second.
void KIVLoop::unloadFunc() {
    if (outstanding > 0) {
        int status = mqb->receive();
        outstanding--;
        opsDone.store(opsDone.load(kRelaxed) + 1, kRelaxed);
        if (status != 0) {
            unsigned char sense[scsi::kMaxSense];
            int size = (int)sizeof sense;
            int length = 0;
            if (status == -16) mqb->errInfo(MQB_INFO_SENSE, 3, sense, &size, &length);

            int t = (int)tag;
            mqb->receiveInfo(MQB_INFO_TAG, 1, &t);
            CDBStruct& rec = cdbs[(uint32_t)t % 128];
            rec.tag = (uint32_t)t;
            int cdbLength = 16;
            mqb->receiveInfo(MQB_INFO_CDB, 2, rec.cdb, &cdbLength);

            if (testType == 3 && length >= 8) {
                unsigned char key = 0, valid = 0;
                SenseParser::getKey(sense, &key, length);
                if ((key == 3 || key == 1) &&
                    SenseParser::getValidBit(sense, &valid, length) != 0) {
                    unsigned char infoBytes[8] = {0};
                    SenseParser::getInformationBytes(sense, infoBytes, length);
                    // All 8 bytes: fixed-format sense fills only the low 4.
                    uint64_t failing = 0;
                    for (unsigned char b : infoBytes) failing = (failing << 8) | b;
                    uint64_t tl = lastTL.load(kRelaxed);
                    // The next packed step adds lastTL, landing right after the failure.
                    lastLba.store((uint64_t)failing + 1 - tl, kRelaxed);
                    printf("Backing off next lba to: %08zu\n", (size_t)(failing + 1));
                    fflush(stdout);
                }
            }

            errCount.store(errCount.load(kRelaxed) + 1, kRelaxed);
            control->testErr(this, status, sense, length, &rec);
        }
    }

    if (!threadMode) {
        uint32_t s = getSec();
        if (s > lastStatSec) {
            lastStatSec = s;
            control->analyze(false);
            control->checkErr();
        }
    }
}

// Returns the wall-clock time in whole seconds, truncated to 32 bits.
uint32_t KIVLoop::getSec() { return (uint32_t)(wallClockMs() / 1000); }

// One draw of the process's shared rand() generator.
int KIVLoop::hirand() { return rand(); }

// Makes the 1,000,000 bytes of random write data, each from 0 to 254. Draws a
// million numbers from the shared generator. The buffer is never freed.
void KIVLoop::generateRandomWriteBuffer() {
    printf("Generating Random Write Buffer Data...");
    fflush(stdout);
    write_buff_size = 1000000;
    write_buff = (uint8_t*)malloc(write_buff_size);
    if (write_buff == nullptr) {
        write_buff_size = 0;
        return;
    }
    for (uint64_t i = 0; i < write_buff_size; i++) write_buff[i] = (uint8_t)(hirand() % 255);
}
