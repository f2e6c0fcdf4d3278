// KIVControl_errors.cpp: what happens to a failed command: its report on the
// display (through the print buffer) and in the error log, its count in the
// error statistics, the halt/pass decision from the error control table; the
// interpreter-side drain of the print buffer; and the error statistics file.
#include "KIVControl.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "CDBStruct.h"
#include "Hashtable.h"
#include "KIVLoop.h"
#include "MQBErr.h"
#include "SenseParser.h"

namespace {

// Status codes the error path treats specially.
constexpr int kStatusTimeout = -14;
constexpr int kStatusCheck = -16;

// Sense data shorter than this carries no reliable key/code/qualifier/UEC for
// statistics and matching.
constexpr int kMinParsedSense = 22;


struct SenseFields {
    unsigned char key = 0, code = 0, qual = 0;
    unsigned short uec = 0;
};

// Key, code, qualifier and UEC of the sense data, or all zero when the sense is
// too short to hold them.
SenseFields parseSense(const unsigned char* sense, int senseLength) {
    SenseFields f;
    if (sense != nullptr && senseLength >= kMinParsedSense) {
        SenseParser::getKey(sense, &f.key, senseLength);
        SenseParser::getCode(sense, &f.code, senseLength);
        SenseParser::getQual(sense, &f.qual, senseLength);
        SenseParser::getUec(sense, &f.uec, senseLength);
    }
    return f;
}

}  // namespace

// Reports, counts and judges one failed command of `loop`. Everything runs
// under printMutex, which also serialises the static buffers below. Leaves
// loop->running false when the error control table (or, with an empty table,
// errorHalt) says halt, true when a PASS entry matched (unless the run was
// stopped for good), and false on any timeout. Makes no Tcl call: the report waits in the print buffer for checkErr.
void KIVControl::testErr(KIVLoop* loop, int status, unsigned char* sense, int senseLength,
                         CDBStruct* record) {
    static char tbuff[255];
    static char hbuff[20];
    static char stat_key[4];
    static char stat_code[4];
    static char stat_qualifier[4];
    static char stat_uec[8];

    pthread_mutex_lock(&printMutex);

    // Shows the line on the display (same rule as printThreaded, lock already
    // held) and writes it to the error log.
    auto emit = [this](const char* text) {
        // Report lines stop at 65000 characters, one before printThreaded's lines.
        if (printErrors) queueLineLocked(text, kPrintBufLimit - 1);  // the print buffer stops here; the error log still gets them
        if (errLogfileName != nullptr && errLogfile != nullptr)
            noteWrite(fprintf(errLogfile, "%s\n", text), errLogWriteErr);
    };

    if (sense == nullptr) senseLength = 0;

    if (printErrors || errLogfileName != nullptr) {
        snprintf(tbuff, sizeof tbuff, "\nKIV Error: %s on device %u:", MQBErr::errStr(status),
                 (unsigned)loop->deviceIdx);
        emit(tbuff);

        snprintf(tbuff, sizeof tbuff, "TAGID: 0x%02X CDB: ", (unsigned)record->tag);
        int cdbLen = record->cdbLen > sizeof record->cdb ? (int)sizeof record->cdb : record->cdbLen;
        for (int i = 0; i < cdbLen; ++i) {
            snprintf(hbuff, sizeof hbuff, "%02X ", record->cdb[i]);
            strncat(tbuff, hbuff, sizeof tbuff - strlen(tbuff) - 1);
        }
        emit(tbuff);

        if (status == kStatusTimeout && errLogfileName != nullptr && errLogfile != nullptr)
            noteWrite(fputs("---Timeout Occurred---\n", errLogfile), errLogWriteErr);

        if (status == kStatusCheck) {
            emit("Sense Data:");
            tbuff[0] = '\0';
            for (int i = 0; i < senseLength; ++i) {
                snprintf(hbuff, sizeof hbuff, "%02X ", sense[i]);
                strncat(tbuff, hbuff, sizeof tbuff - strlen(tbuff) - 1);
                if (i % 16 == 15) {
                    emit(tbuff);
                    tbuff[0] = '\0';
                }
            }
            if (senseLength % 16 != 0) emit(tbuff);

            SenseFields f = parseSense(sense, senseLength);
            snprintf(stat_key, sizeof stat_key, "%02X", f.key);
            snprintf(stat_code, sizeof stat_code, "%02X", f.code);
            snprintf(stat_qualifier, sizeof stat_qualifier, "%02X", f.qual);
            snprintf(stat_uec, sizeof stat_uec, "%04X", f.uec);
            snprintf(tbuff, sizeof tbuff, "%4i %11s %6s %11s %14s", (int)loop->deviceIdx, stat_key,
                     stat_code, stat_qualifier, stat_uec);

            // put never replaces a present key, so a count moves by remove + put.
            uintptr_t count = (uintptr_t)errStats->get(tbuff);
            if (count != 0) errStats->remove(tbuff);
            errStats->put(tbuff, (void*)(count + 1));
        }
    }

    if (kcqCount == 0) {
        if (errorHalt) loop->running.store(false);
    } else {
        SenseFields f = parseSense(sense, senseLength);
        for (int i = 0; i < kcqCount; ++i) {
            if ((f.key & kcqKeyMask[i]) == kcqKey[i] && (f.code & kcqCodeMask[i]) == kcqCode[i] &&
                (f.qual & kcqQualMask[i]) == kcqQual[i] && (f.uec & kcqUecMask[i]) == kcqUec[i]) {
                // PASS restarts a loop an earlier error halted, never one the
                // statistics pass has stopped.
                loop->running.store(!kcqHalt[i] && !loop->stopRequested.load());
                break;
            }
        }
    }

    // A command that timed out leaves the device in an unknown state: always stop.
    if (status == kStatusTimeout) loop->running.store(false);

    pthread_mutex_unlock(&printMutex);
}

// Shows the lines the test threads queued in the print buffer with one puts,
// taken as a single literal argument so that nothing a line holds is evaluated,
// then empties the buffer and refreshes the window's error table. Interpreter's
// thread only.
void KIVControl::checkErr() {
    // Unlocked look first: a stale length only moves the drain to the next call.
    if (__atomic_load_n(&printLen, __ATOMIC_RELAXED) <= 9) return;

    pthread_mutex_lock(&printMutex);
    if (interp != nullptr && printLen > kPutsPrefixLen) {
        Tcl_Obj* objv[2];
        objv[0] = Tcl_NewStringObj("puts", 4);
        objv[1] = Tcl_NewStringObj(printBuf + kPutsPrefixLen, (int)(printLen - kPutsPrefixLen));
        Tcl_IncrRefCount(objv[0]);
        Tcl_IncrRefCount(objv[1]);
        Tcl_EvalObjv(interp, 2, objv, 0);
        Tcl_DecrRefCount(objv[0]);
        Tcl_DecrRefCount(objv[1]);
    }
    memcpy(printBuf, kPutsPrefix, kPutsPrefixLen + 1);
    __atomic_store_n(&printLen, kPutsPrefixLen, __ATOMIC_RELAXED);
    updateErrWindow();
    pthread_mutex_unlock(&printMutex);
}

// Writes the error statistics table to errStatFile (header, rule, one row per
// key in table order) and empties the statistics and the window's row map.
void KIVControl::generateStatFile() {
    if (errStatFile != nullptr) {
        int& err = errStatWriteErr;
        noteWrite(fprintf(errStatFile, "%4s %11s %6s %11s %14s %17s\n", "Indx", "Key", "Code",
                          "Qualifier", "UEC", "Errors"),
                  err);
        for (int i = 0; i < 69; ++i) noteWrite(fputc('-', errStatFile), err);
        noteWrite(fputc('\n', errStatFile), err);
        for (int i = errStats->nextIndex(-1); i != -1; i = errStats->nextIndex(i)) {
            noteWrite(fprintf(errStatFile, "%s %17lu\n", errStats->getIndexKey(i),
                              (unsigned long)(uintptr_t)errStats->getIndexVal(i)),
                      err);
        }
    }
    errStats->removeAll();
    errWidgets->removeAll();
    errWidgetCount = 0;
}
