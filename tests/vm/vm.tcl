# vm.tcl: what the tests in the QEMU guest share (sourced by each tests/vm file,
# which tests/vm/run runs under kivsh with scsi_debug loaded).

# The guest's first SCSI generic device, scsi_debug's, and its knobs.
set ::sg /dev/sg0
set ::sdebug /sys/bus/pseudo/drivers/scsi_debug
testConstraint sgdev [expr {[info exists ::env(KIV_VM)] && [file writable $::sg]}]

proc sysRead {path} { string trim [readFile $path] }
# A scsi_debug parameter, set when a value is given (opts, every_nth, ...).
proc sdebug {name args} {
    if {[llength $args]} { writeFile $::sdebug/$name [lindex $args 0] }
    sysRead $::sdebug/$name
}
# An attribute of sg0's SCSI device (iorequest_cnt, iodone_cnt, device_busy, state).
proc devAttr {name} { expr {[sysRead /sys/class/scsi_generic/sg0/device/$name]}}

# Runs `script` (a kiv call) and returns {seconds output} with the kiv output
# captured; the run's wall time in seconds as a double.
proc timedKiv {script} {
    set t0 [clock milliseconds]
    lassign [uplevel 1 [list capture $script]] code res out
    if {$code} { error "kiv failed: $res" }
    list [expr {([clock milliseconds] - $t0) / 1000.0}] $out
}

# The lines kiv's error reports consist of, as {status cdb sense} triples of
# the status text, the CDB bytes and the sense bytes (a list each).
proc errorReports {out} {
    set reports {}
    foreach {- status cdb sense} [regexp -all -inline \
            {KIV Error: ([^\n]+) on device \d+:\nTAGID: 0x[0-9A-F]+ CDB: ([0-9A-F ]+)\n(?:Sense Data:\n((?:(?:[0-9A-F]{2} )+\n)*))?} $out] {
        lappend reports [list $status [string trim $cdb] [string trim [string map {\n " "} $sense]]]
    }
    return $reports
}
