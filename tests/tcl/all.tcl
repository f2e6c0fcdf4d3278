# all.tcl: runs every tcltest file of this folder, each in its own kivsh
# process (as CTest does), and prints one summary line.
#   build/kivsh tests/tcl/all.tcl ?PATTERN?
set here [file dirname [file normalize [info script]]]
set kivsh [info nameofexecutable]
set pattern [expr {$argc > 0 ? [lindex $argv 0] : "*.test"}]
set passed 0; set failed 0; set failedFiles {}
foreach f [lsort [glob -directory $here $pattern]] {
    puts "== [file tail $f]"
    if {[catch {exec $kivsh [file join $here run.tcl] $f >@ stdout 2>@ stderr}]} {
        incr failed; lappend failedFiles [file tail $f]
    } else {
        incr passed
    }
}
if {$failed} { puts "failed files: $failedFiles" }
puts "$passed passed, $failed failed"
exit [expr {$failed > 0}]
