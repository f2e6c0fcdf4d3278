// KIVControl_output.cpp: the output channels every part of a test uses
// (print, printLiteral, printThreaded and the print buffer it fills, tclEval)
// and the millisecond clock.
#include "KIVControl.h"

#include <cstdio>
#include <cstring>

#include "WallClock.h"

// Shows one line through `puts "<text>"` in the interpreter. The text is
// substituted by Tcl, which the library's messages rely on for "\n" breaks.
// A text too long for the buffer is cut short (never past the buffer).
void KIVControl::print(const char* text) {
    static char buff[4096];
    size_t len = strlen(text);
    const size_t room = sizeof buff - kPutsPrefixLen - 2;
    if (len > room) len = room;
    memcpy(buff, kPutsPrefix, kPutsPrefixLen);
    memcpy(buff + kPutsPrefixLen, text, len);
    buff[kPutsPrefixLen + len] = '"';
    buff[kPutsPrefixLen + len + 1] = '\0';
    Tcl_EvalEx(interp, buff, -1, 0);
}

// Shows user-supplied text (file names, scripts) exactly as given: the text
// is passed to puts as one word, with no substitution.
void KIVControl::printLiteral(const char* text) {
    Tcl_Obj* objv[2];
    objv[0] = Tcl_NewStringObj("puts", 4);
    objv[1] = Tcl_NewStringObj(text, -1);
    Tcl_IncrRefCount(objv[0]);
    Tcl_IncrRefCount(objv[1]);
    Tcl_EvalObjv(interp, 2, objv, 0);
    Tcl_DecrRefCount(objv[0]);
    Tcl_DecrRefCount(objv[1]);
}

// Queues one line for the next drain of the print buffer; any thread may call
// it. Lines queued while the buffer holds more than 65000 characters are
// dropped.
void KIVControl::printThreaded(const char* text) {
    pthread_mutex_lock(&printMutex);
    queueLineLocked(text, kPrintBufLimit);
    pthread_mutex_unlock(&printMutex);
}

// Copies the text and a line feed to the end of the print buffer, keeping it
// terminated, when printLen is at most `limit`; otherwise drops the line. The
// caller holds printMutex. A text longer than the room left is cut short.
void KIVControl::queueLineLocked(const char* text, size_t limit) {
    if (!printBuf || printLen > limit) return;
    size_t len = strlen(text);
    const size_t cap = 65535 - printLen - 2;
    if (len > cap) len = cap;
    memcpy(printBuf + printLen, text, len);
    printBuf[printLen + len] = '\n';
    printBuf[printLen + len + 1] = '\0';
    // checkErr peeks at the length without the lock to skip empty drains;
    // store it as one relaxed atomic word so that peek is well defined.
    __atomic_store_n(&printLen, printLen + len + 1, __ATOMIC_RELAXED);
}

// Evaluates a script and returns its Tcl code; a failure is reported on the
// process's standard output with the script and the error text.
int KIVControl::tclEval(Tcl_Interp* in, const char* script) {
    int rc = Tcl_Eval(in, script);
    if (rc != TCL_OK) {
        printf("<<<TCL ERROR>>>: \"%s\" --> \"%s\"\n", script, Tcl_GetStringResult(in));
        fflush(stdout);
    }
    return rc;
}

// Wall-clock milliseconds, wrapping modulo 2^32.
uint32_t KIVControl::getMS() { return (uint32_t)wallClockMs(); }
