// KIVLoop_gen.cpp: choosing the next block and command of a device loop and
// building its 10-byte CDB. One call of loadFunc makes and sends one command.
#include "KIVLoop.h"

void KIVLoop::loadFunc() {}
uint64_t KIVLoop::drawTL() { return minTL; }
void KIVLoop::sequentialStep() {}
void KIVLoop::streamAdvance() {}
void KIVLoop::streamStep() {}
