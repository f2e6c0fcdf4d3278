// TestSupport.h: what the unit tests share: one Tcl interpreter (with the stubs
// table initialised for the extension's code), capture of its puts output and
// of the process's stdout, temporary files, and a KIVControl over simulated disks.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <gtest/gtest.h>
#include <tcl.h>

#include "KIVControl.h"
#include "MQBManager.h"

// The interpreter made by the test main; Tk is not loaded in it.
Tcl_Interp* testInterp();

// What `f` writes through the test interpreter's puts (to stdout; the result is
// reset after), on the process's stdout and on its stderr.
std::string tclOutput(const std::function<void()>& f);
std::string stdoutOf(const std::function<void()>& f);
std::string stderrOf(const std::function<void()>& f);

// A new empty file under /tmp (the caller unlinks it); a file's whole text.
std::string makeTempFile();
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// Four simulated disks of 1000 blocks, the current channel on the last (index 3),
// and a KIVControl that has not been through init yet.
class SimControlTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;  // deletes the loops at ctl's device positions
    // init with its output (none expected when a channel is loaded) discarded.
    void quietInit() { tclOutput([this] { ctl->init(&mgr, testInterp()); }); }
    // A running loop on the current disk, added at ctl's next device position and
    // reporting `deviceIdx`; the test sets its counters.
    KIVLoop* addLoop(uint32_t deviceIdx);

    MQBManager mgr;
    std::unique_ptr<KIVControl> ctl;
};
