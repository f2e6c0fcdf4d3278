# jsonlog.tcl: statistics as JSON lines for a pipeline. A -statcallback that
# writes one JSON object per device per statistics pass (tcllib's json::write),
# fields named like the kiv_* variables it reads:
#   {"time_ms":..,"index":1,"test_type":"70/30","last_cmd":0,"ops":1234,
#    "last_lba":56789,"last_tl":16,"time":5,"ops_per_sec":246,
#    "mb_per_sec":1.26,"err_count":0}
# Use it from a script:
#   source examples/jsonlog.tcl
#   set f [open stats.jsonl w]
#   kiv -devices ... -statcallback [jsonlog::callback $f]
# or run it for a demonstration (two simulated drives, 3 s, lines on stdout):
#   build/kivsh examples/jsonlog.tcl
package require json::write

namespace eval jsonlog {
    json::write indented 0
    json::write aligned 0
}

# The callback script that writes to the open channel `chan`. kiv evaluates it
# in its caller's scope, where the kiv_* variables of the pass are set.
proc jsonlog::callback {chan} {
    list jsonlog::line $chan
}

# Writes the pass's object for the current device to `chan`, reading the
# kiv_* variables of the calling scope.
proc jsonlog::line {chan} {
    foreach v {index test_type last_cmd ops last_lba last_tl time ops_per_sec mb_per_sec err_count} {
        upvar 1 kiv_$v $v
    }
    puts $chan [json::write object \
        time_ms [clock milliseconds] \
        index $index \
        test_type [json::write string $test_type] \
        last_cmd $last_cmd \
        ops $ops \
        last_lba $last_lba \
        last_tl $last_tl \
        time $time \
        ops_per_sec $ops_per_sec \
        mb_per_sec $mb_per_sec \
        err_count $err_count]
    flush $chan
}

if {[info exists argv0] && [file normalize $argv0] eq [file normalize [info script]]} {
    set a [mqb add sim:blocks=1000000,latency=100]
    set b [mqb add sim:blocks=1000000,latency=100]
    kiv -devices "$a $b" -test r -r10 70 -w10 30 -qd 8 -time 3 -statmode none \
        -statcallback [jsonlog::callback stdout]
}
