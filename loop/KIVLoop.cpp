// KIVLoop.cpp: construction and destruction of a device loop, the device
// preparation that starts its run, and the class-wide buffers and counters.
#include "KIVLoop.h"
#include <cstring>

uint8_t*             KIVLoop::read_buff = nullptr;
uint64_t             KIVLoop::read_buff_size = 0;
uint8_t*             KIVLoop::write_buff = nullptr;
uint64_t             KIVLoop::write_buff_size = 0;
std::atomic<int32_t> KIVLoop::skip_count{0};
std::atomic<int32_t> KIVLoop::reverse_count{0};
std::atomic<int32_t> KIVLoop::repeat_count{0};
std::atomic<int32_t> KIVLoop::rawio_counter{0};

KIVLoop::KIVLoop(KIVControl* control_, MQBManager*, int deviceIdx_, bool threadMode_,
                 int testType_, float mixRatio_, int, int, int, int, int, double, double,
                 int, int, int, int, int, int, int, int, int, int)
    : running(false), lastLba(0), lastTL(0), lastCmd(2), outstanding(0), tag(0),
      blockSize(0), opsDone(0), blocksIssued(0), deviceIdx(deviceIdx_), hwCompare(false),
      errCount(-1), errShown(false), control(control_), threadMode(threadMode_),
      testType(testType_), mixRatio(mixRatio_), userData(nullptr), mqb(nullptr) {
    memset(cdbs, 0, sizeof(cdbs));
}

KIVLoop::~KIVLoop() {}

bool KIVLoop::prepareDevice() { return false; }

void KIVLoop::setSkipCount(int n) { skip_count.store(n); }
void KIVLoop::setReverseCount(int n) { reverse_count.store(n); }
void KIVLoop::setRepeatCount(int n) { repeat_count.store(n); }
void KIVLoop::setRawioCount(int) { rawio_counter.store(0); }
void KIVLoop::reserveReadBuffer(uint64_t) {}
