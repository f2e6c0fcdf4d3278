// KIVControl_report.cpp: the parameter report printed before every run.
#include "KIVControl.h"

void KIVControl::outputParms() {}
