// KIVControl_errors.cpp: error reports, the print-buffer drain and the error
// statistics file.
#include "KIVControl.h"

void KIVControl::testErr(KIVLoop*, int, unsigned char*, int, CDBStruct*) {}
void KIVControl::checkErr() {}
void KIVControl::generateStatFile() {}
