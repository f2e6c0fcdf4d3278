// test_main.cpp: GoogleTest main for every unit test binary. It creates the one
// Tcl interpreter the extension's code talks to and initialises the stubs table.
#include <gtest/gtest.h>
// The extension's objects call Tcl through the stubs table, and the build hands
// USE_TCL_STUBS to this file too. The interpreter, though, must be made by the
// real library before any table exists, so this file calls Tcl directly and
// then fills the table with the stubs library's own initialiser.
#undef USE_TCL_STUBS
#include <tcl.h>
#undef Tcl_InitStubs
extern "C" const char* Tcl_InitStubs(Tcl_Interp* interp, const char* version, int exact);
#include "TestSupport.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "DeviceTable.h"
#include "KIVLoop.h"
#include "MQB.h"

namespace {
Tcl_Interp* g_interp = nullptr;

// A `puts` that keeps what goes to stdout (one argument, or -nonewline and/or
// stdout before it) in ::__kiv_captured and passes any other call through.
const char* kCaptureScript = R"tcl(
    rename ::puts ::__kiv_real_puts
    set ::__kiv_captured ""
    proc ::puts {args} {
        set opts [lrange $args 0 end-1]
        if {[lindex $opts end] eq "stdout"} { set opts [lrange $opts 0 end-1] }
        if {$opts ni {{} -nonewline}} { return [::__kiv_real_puts {*}$args] }
        append ::__kiv_captured [lindex $args end] [expr {$opts eq "" ? "\n" : ""}]
    }
)tcl";
}  // namespace

Tcl_Interp* testInterp() { return g_interp; }

std::string tclOutput(const std::function<void()>& f) {
    Tcl_Eval(g_interp, kCaptureScript);
    f();
    const char* v = Tcl_GetVar(g_interp, "__kiv_captured", TCL_GLOBAL_ONLY);
    std::string out = v ? v : "";
    Tcl_Eval(g_interp, "rename ::puts {}; rename ::__kiv_real_puts ::puts; unset -nocomplain ::__kiv_captured");
    Tcl_ResetResult(g_interp);
    return out;
}

std::string stdoutOf(const std::function<void()>& f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

std::string stderrOf(const std::function<void()>& f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

std::string makeTempFile() {
    char tmpl[] = "/tmp/kiv_unit_XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) return "";
    close(fd);
    return tmpl;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

void SimControlTest::SetUp() {
    mqb::clearAllDevices();
    std::string err;
    for (int i = 0; i < 4; ++i) ASSERT_EQ(mqb::addDevice("sim:blocks=1000", err), i) << err;
    auto channel = std::make_unique<MQB>("sim");
    ASSERT_EQ(channel->setDeviceIndex(3), 0);
    mgr.setCurrentMQB(std::move(channel));
    ctl = std::make_unique<KIVControl>();
}

KIVLoop* SimControlTest::addLoop(uint32_t deviceIdx) {
    KIVLoop* l = nullptr;
    tclOutput([&] {  // its set-up messages
        l = new KIVLoop(ctl.get(), &mgr, 3, false, 2, 0.1f, 0, 100, 0, 0, 0, 0.0, 1.0, 1, 64, 1, 0,
                        0, 0, 0, 0, 0, -1);
    });
    l->deviceIdx = deviceIdx;
    l->lastCmd.store(0);
    l->running.store(true);
    return ctl->loops[ctl->numDevices++] = l;
}

void SimControlTest::TearDown() {
    for (int i = 0; i < ctl->numDevices; i++) delete ctl->loops[i];
    ctl.reset();
    mgr.setCurrentMQB(nullptr);
    mqb::clearAllDevices();
    KIVControl::time_start = 0;
}

int main(int argc, char** argv) {
    Tcl_FindExecutable(argv[0]);
    g_interp = Tcl_CreateInterp();
    // The library scripts are not needed by the unit tests: without them, carry on.
    if (Tcl_Init(g_interp) != TCL_OK) Tcl_ResetResult(g_interp);
    if (Tcl_InitStubs(g_interp, "8.6", 0) == nullptr) {
        fprintf(stderr, "cannot initialise Tcl stubs\n");
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    Tcl_DeleteInterp(g_interp);
    // A binary whose every test skipped (no device, peer or display) tested
    // nothing: exit 77 so CTest reports it skipped rather than passed.
    const testing::UnitTest& u = *testing::UnitTest::GetInstance();
    if (rc == 0 && u.test_to_run_count() > 0 && u.skipped_test_count() == u.test_to_run_count())
        return 77;
    return rc;
}
