// KivCommand.cpp: the library's entry `run`, the `kiv` command procedure that
// turns the command's options into KIVControl settings and runs the test, and
// the command's help.
#include "KivCommand.h"

#include <cstdio>
#include <cstring>

#include "CDBStruct.h"
#include "HelpFormatter.h"
#include "KIVControl.h"
#include "MQBManager.h"
#include "Parsers.h"
#include "Scsi.h"
#include "TCLErrStr.h"
#include "Utils.h"

const char* kivHelpTable[51] = {
    "?-test?", "The test pattern to use. Options are r,s,<%>r,<%s>. Default=10r",
    "?-r10?", "The percentage of commands that will be read10",
    "?-w10?", "The percentage of commands that will be write10",
    "?-wrv?", "The percentage of commands that will be write_verify",
    "?-verify?", "The percentage of commands that will be verify",
    "?-lba?", "The lba range to use. Options are <l>:<h>, or <h>. % can be used. def=0:100%",
    "?-translen?", "The transfer length range to use. Options are <l>:<h> or <l>. def=1:64",
    "?-qd?", "The desired queue depth",
    "?-ops?", "The number of ops to run. 0=forever. Default = 0",
    "?-time?", "The time to run in seconds. 0=forever. Default = 30",
    "?-statmode?", "How to report stats. Options are window, term, or none. Default=window",
    "?-logstats?", "A filename to log stats to. Default=<none>",
    "?-statheader?", "Whether to output a stat header. Default=1",
    "?-statappend?", "Append stat info to stat logfile. Default=0",
    "?-stattime?", "The number of seconds between stat updates. Default=1",
    "?-statcallback?", "Tcl code to call each time a stat update is performed. Default=<none>",
    "?-printerrors?", "Output errors to the display. Default=1",
    "?-logerrors?", "Log errors to a file. Default=<none>",
    "?-errorappend?", "Append error info to error log file. Default=0",
    "?-errorhalt?", "Halt the test thread if an error occurs. Default=0",
    "?-errorfile?", "Filename of error control file. Default=<none>",
    "?-errorstats?", "Filename to keep track of statistics on errors. Default=<none>",
    "?-devices?", "A TCL list of device indexes to test. Default=<current index>",
    "?-spawn?", "Whether to run tests in a seperate thread. Default=<depends on driver>",
    "?-hwc?", "Use hardware compare w keyed lbas in data (Zorva only!)",
    nullptr,
};

namespace {

const char* const kAlreadyRunning =
    "There is already a KIV test running.    You can cancel the test with \"set kiv_run 0\"";
const char* const kMissingArgs = "<E> Missing Argument(s)";
const char* const kBadOptionFmt =
    "Bad Option %s: valid flags are: -test, -r10, -w10, -wrv, -verify, -lba, -translen, -qd, "
    "-ops, -time, -printstats, -logstats, -statheader, -statappend, -statmode, -stattime, "
    "-statcallback, -printerrors, -logerrors, -errorappend, -errorhalt, -devices, -spawn";
const char* const kBadOptionLong =
    "Bad Option (parm too long to display): valid flags are: -test, -r10, -w10, -wrv, -verify, "
    "-lba, -translen, -qd, -ops, -time, -printstats, -logstats, -statheader, -statappend, "
    "-statmode, -stattime, -statcallback, -printerrors, -logerrors, -errorappend, -errorhalt, "
    "-devices, -spawn";
const char* const kBadTest =
    "Invalid -test option.    Valid options are r, s, <percent>r, or <percent>s";
const char* const kBadMixPercent =
    "-test: When using a test mix, percent must be an integer from 0 to 100";
const char* const kBadTotal =
    "Invalid percentage total. The sum of the test command percentages must equal 100";
const char* const kBadStatMode = "Invalid -statmode option. Valid options are term, window, and none";
const char* const kZeroBlockSize = "-translen : Drive is reporting a block size of 0";

const char* const kSummary = "A command for performing KIV tests on a drive";
const char* const kDescription =
    "This command is used to perform typical KIV type operations on a drive (lots of "
    "reads/writes). A gui is provided with the command to assist the user in setting the many "
    "parameter options while the command is provided to allow kiv tests to be easily added as a "
    "part of a testing script. The kiv command without options will use all of the specified "
    "defaults (current set to 10% reads, 90% sequential, read only with varying transfer "
    "lengths between 1:64).";
const char* const kExamples =
    "kiv\n"
    "kiv -test s -lba 1:10 -lba 25%:50%\n"
    "kiv -logstats statfile.txt -logerrors errfile.txt\n"
    "kiv -statmode term";

void setStatic(Tcl_Interp* interp, const char* text) {
    Tcl_SetResult(interp, const_cast<char*>(text), TCL_STATIC);
}

bool isPercentOption(const char* word) {
    return strcmp(word, "-r10") == 0 || strcmp(word, "-w10") == 0 ||
           strcmp(word, "-wrv") == 0 || strcmp(word, "-verify") == 0;
}

// -test: the four one-letter patterns, or "<p>r" / "<p>s" for a mix.
// Returns TCL_OK or TCL_ERROR with the reason in the result.
int applyTest(const char* v, MQBManager* manager, Tcl_Interp* interp) {
    if (strcmp(v, "r") == 0) { control.setTestType(0, 0); return TCL_OK; }
    if (strcmp(v, "s") == 0) { control.setTestType(1, 0); return TCL_OK; }
    if (strcmp(v, "p") == 0) { control.setTestType(3, 0); return TCL_OK; }
    if (strcmp(v, "x") == 0) { control.setTestType(4, 0); return TCL_OK; }
    size_t len = strlen(v);
    char last = len > 0 ? v[len - 1] : '\0';
    if (last != 'r' && last != 's') {
        setStatic(interp, kBadTest);
        return TCL_ERROR;
    }
    Tcl_DString ds;
    Tcl_DStringInit(&ds);
    Tcl_DStringAppend(&ds, v, (int)(len - 1));
    unsigned int pct = 0;
    int rc = Utils::getInt(pct, Tcl_DStringValue(&ds), interp, manager);
    Tcl_DStringFree(&ds);
    if (rc != 0) return TCL_ERROR;
    if (pct > 100) {
        setStatic(interp, kBadMixPercent);
        return TCL_ERROR;
    }
    control.setTestType(2, last == 'r' ? (int)pct : 100 - (int)pct);
    return TCL_OK;
}

// -translen: the range, capped so that no transfer exceeds 1,000,000 bytes. A
// device that does not know its block size yet is asked with READ CAPACITY(10)
// first. Returns TCL_OK or TCL_ERROR (a failed send/receive leaves no text).
int applyTransLen(const char* v, MQBManager* manager, Tcl_Interp* interp) {
    unsigned int low = 0, high = 0;
    int rc = parseTLInfo(v, low, high, manager, interp);
    MQB* mqb = manager != nullptr ? manager->getCurrentMQB() : nullptr;
    if (mqb == nullptr) return TCL_ERROR;  // no channel to ask: nothing sensible to cap by
    DeviceInfo info;
    mqb->getDeviceInfo(&info);
    if (info.blockSize == 0) {
        unsigned char data[8];
        CDBStruct rec;
        memset(&rec, 0, sizeof rec);
        rec.recLen = 112;
        rec.one = 1;
        rec.cdbLen = 10;
        rec.readLen = 8;
        rec.cdb[0] = scsi::kReadCapacity10;
        rec.readBuf = data;
        if (mqb->send(reinterpret_cast<unsigned char*>(&rec)) != 0) return TCL_ERROR;
        if (mqb->receive() != 0) return TCL_ERROR;
        mqb->getDeviceInfo(&info);
        if (info.blockSize == 0) {
            setStatic(interp, kZeroBlockSize);
            return TCL_ERROR;
        }
    }
    if (rc != 0) return TCL_ERROR;
    unsigned int limit = 1000000u / info.blockSize;
    if (low > limit) low = limit;
    if (high > limit) high = limit;
    control.setTLRange((int)low, (int)high);
    return TCL_OK;
}

// One option word and its value. Returns TCL_OK when applied; TCL_ERROR with
// the result text the failure left. `i` indexes the option word, so the
// percentage options can look at the words after their value.
int applyOption(int i, int argc, const char* argv[], unsigned int pct[4],
                MQBManager* manager, Tcl_Interp* interp) {
    const char* opt = argv[i];
    const char* v = argv[i + 1];
    unsigned int n = 0;

    // Integer and boolean options that go straight to a setter.
    struct IntOption {
        const char* name;
        void (*apply)(unsigned int);
    };
    static const IntOption intOptions[] = {
        {"-qd", [](unsigned int x) { control.setQDepth((int)x); }},
        {"-hwc", [](unsigned int x) { control.useHWC(x != 0); }},
        {"-time", [](unsigned int x) { control.setRunTime((int)x); }},
        {"-randstream", [](unsigned int x) { control.setRandStream((int)x); }},
        {"-rawio", [](unsigned int x) { control.setRawioP((int)x - 2); }},
        {"-skip", [](unsigned int x) { control.setSkipFreq((int)x); }},
        {"-repeat", [](unsigned int x) { control.setRepeatFreq((int)x); }},
        {"-reverse", [](unsigned int x) { control.setReverseFreq((int)x); }},
        {"-statheader", [](unsigned int x) { control.printStatHeader(x != 0); }},
        {"-statappend", [](unsigned int x) { control.appendToStatLogfile(x != 0); }},
        {"-stattime", [](unsigned int x) { control.setSecondsPerReport((int)x); }},
        {"-printerrors", [](unsigned int x) { control.reportErrors(x != 0); }},
        {"-errorappend", [](unsigned int x) { control.appendToErrLogfile(x != 0); }},
        {"-errorhalt", [](unsigned int x) { control.haltOnError(x != 0); }},
        {"-spawn", [](unsigned int x) { control.setThreadMode(x != 0); }},
        {"-usebuffer", [](unsigned int x) { control.setDataBufferIdx((int)x); }},
    };

    if (strcmp(opt, "-lba") == 0) {
        double low = 0.0, high = 0.0;
        if (parseLBAInfo(v, low, high, manager, interp) != 0) return TCL_ERROR;
        control.setLbaRange(low, high);
        return TCL_OK;
    }
    if (strcmp(opt, "-translen") == 0) return applyTransLen(v, manager, interp);
    if (strcmp(opt, "-ops") == 0) {
        int ops = 0;
        if (parseOpInfo(manager, v, ops, interp) != 0) return TCL_ERROR;
        control.setOps(ops);
        return TCL_OK;
    }
    if (strcmp(opt, "-test") == 0) return applyTest(v, manager, interp);

    static const char* const pctNames[4] = {"-r10", "-w10", "-wrv", "-verify"};
    for (int k = 0; k < 4; ++k) {
        if (strcmp(opt, pctNames[k]) != 0) continue;
        pct[k] = 0;
        int rc = Utils::getInt(pct[k], v, interp, manager);
        // Only the last percentage option of the call checks the total, and a
        // later word that merely looks like one (a file name, say) counts too.
        for (int j = i + 2; j < argc; ++j)
            if (isPercentOption(argv[j])) return rc != 0 ? TCL_ERROR : TCL_OK;
        unsigned long long total = (unsigned long long)pct[0] + pct[1] + pct[2] + pct[3];
        if (total != 100) {
            setStatic(interp, kBadTotal);
            return TCL_ERROR;
        }
        if (rc != 0) return TCL_ERROR;
        control.setTestCmd(1, (int)pct[0], (int)pct[1], (int)pct[2], (int)pct[3]);
        return TCL_OK;
    }

    if (strcmp(opt, "-statmode") == 0) {
        if (strcmp(v, "term") == 0)
            control.setStatMode(1);
        else if (strcmp(v, "window") == 0)
            control.setStatMode(2);
        else if (strcmp(v, "none") == 0)
            control.setStatMode(0);
        else {
            setStatic(interp, kBadStatMode);
            return TCL_ERROR;
        }
        return TCL_OK;
    }
    if (strcmp(opt, "-logstats") == 0) { control.setStatLogfile(v); return TCL_OK; }
    if (strcmp(opt, "-statcallback") == 0) { control.setStatCallback(v); return TCL_OK; }
    if (strcmp(opt, "-logerrors") == 0) { control.setErrLogfile(v); return TCL_OK; }
    if (strcmp(opt, "-errorstats") == 0) { control.setStatFile(v); return TCL_OK; }
    if (strcmp(opt, "-errorfile") == 0) {
        int r = control.parseErrorFile(v);
        if (r != 0) {
            Tcl_SetObjResult(interp,
                             Tcl_ObjPrintf("<E> Could Not Parse Error File: %s", TCLErrStr::errStr(r)));
            return TCL_ERROR;
        }
        return TCL_OK;
    }
    if (strcmp(opt, "-devices") == 0) {
        unsigned int list[256];
        int count = getDevices(manager, interp, v, list);
        if (count == 0) return TCL_ERROR;
        control.setDeviceList(reinterpret_cast<int*>(list), count);
        return TCL_OK;
    }

    for (const IntOption& o : intOptions) {
        if (strcmp(opt, o.name) != 0) continue;
        if (Utils::getInt(n, v, interp, manager) != 0) return TCL_ERROR;
        o.apply(n);
        return TCL_OK;
    }

    // Not an option: name it in the message when it is short enough to show.
    if (strlen(opt) < 40) {
        char buf[512];
        snprintf(buf, sizeof buf, kBadOptionFmt, opt);
        Tcl_AppendResult(interp, buf, (char*)NULL);
    } else {
        Tcl_AppendResult(interp, kBadOptionLong, (char*)NULL);
    }
    return TCL_ERROR;
}

}  // namespace

// Initialises the stubs table, registers `kiv` with the manager as client data
// and leaves "kiv command added" in the result. Returns 0, or 1 when the
// interpreter cannot provide Tcl 8.6.
extern "C" int run(MQBManager* manager, void* /*unused*/, Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, "8.6", 0) == nullptr) return 1;
    Tcl_CreateCommand(interp, "kiv", kiv, (ClientData)manager, nullptr);
    Tcl_SetResult(interp, (char*)"kiv command added", TCL_STATIC);
    return 0;
}

// The kiv command: refuses while a test runs, resets the configuration, applies
// the options left to right and runs the test. Returns TCL_OK after the run or
// after -help; TCL_ERROR, with no test run, at the first bad option (options
// before it stay applied until the next call resets them).
int kiv(ClientData clientData, Tcl_Interp* interp, int argc, const char* argv[]) {
    if (control.isRunning()) {
        setStatic(interp, kAlreadyRunning);
        return TCL_ERROR;
    }
    MQBManager* manager = static_cast<MQBManager*>(clientData);
    control.init(manager, interp);
    unsigned int pct[4] = {0, 0, 0, 0};

    for (int i = 1; i < argc; i += 2) {
        if (strcmp(argv[i], "-help") == 0) {
            printHelp(interp);
            return TCL_OK;
        }
        if (i == argc - 1) {
            setStatic(interp, kMissingArgs);
            return TCL_ERROR;
        }
        if (applyOption(i, argc, argv, pct, manager, interp) != TCL_OK) return TCL_ERROR;
    }
    control.run();
    return TCL_OK;
}

// Hands the summary, description, examples and option table to the help
// formatter, which leaves the laid-out help in the result.
void printHelp(Tcl_Interp* interp) {
    Utils::cmdHelpLong(interp, "kiv", nullptr, kSummary, kDescription, nullptr, kExamples,
                       kivHelpTable, 1);
}
