# run.tcl: runs one tcltest file inside kivsh and exits 1 when any test in it
# failed, so CTest sees the failure, and 77 (skipped) when every test in it was
# skipped.  Usage: kivsh run.tcl FILE.test
package require tcltest 2.5
namespace import ::tcltest::*

set testFile [lindex $argv 0]
configure -verbose {pass skip error} -testdir [file dirname $testFile]
if {[info exists ::env(KIV_TCLTEST_MATCH)]} { configure -match $::env(KIV_TCLTEST_MATCH) }

testConstraint sim [expr {[info commands mqb] ne ""}]
testConstraint tk [expr {[info commands winfo] ne "" && [catch {winfo screen .}] == 0}]
testConstraint notk [expr {![testConstraint tk]}]
testConstraint root [expr {[exec id -u] == 0}]
# A plain tclsh cannot load libraries built with sanitizers.
testConstraint plaintclsh [expr {![info exists ::env(KIV_SANITIZE)] || $::env(KIV_SANITIZE) eq ""}]

# With Tk loaded, cleanupTests exits the process itself (status 0) unless the
# run counts as interactive; keep control here so a failure gives exit 1.
testConstraint interactive 1

set ::kivFailed 0
set ::kivAllSkipped 0
proc ::tcltest::cleanupTestsHook {} {
    variable numTests
    if {$numTests(Failed) > 0} { set ::kivFailed 1 }
    # Every test skipped (no device, peer or display): nothing was tested.
    if {$numTests(Total) > 0 && $numTests(Skipped) == $numTests(Total)} { set ::kivAllSkipped 1 }
}
source [file join [file dirname [info script]] helpers.tcl]
# The runner, not each file, ends the run, so no file can leave its failures uncounted.
source $testFile
cleanupTests
if {$::kivFailed} { exit 1 }
# CTest counts exit 77 as skipped.
if {$::kivAllSkipped} { exit 77 }
exit 0
