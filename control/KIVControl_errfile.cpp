// KIVControl_errfile.cpp: the error control file parser.
#include "KIVControl.h"

int KIVControl::parseErrorFile(const char*) { return 0; }
bool KIVControl::isValidSense(char) { return false; }
int KIVControl::hexVal(char) { return -1; }
void KIVControl::processSense(char, char, int, bool) {}
void KIVControl::processUEC(char, char, char, char, bool) {}
