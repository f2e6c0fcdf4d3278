# host.tcl DIR: one "host" of the Prometheus fixture, run by kivsh --metrics
# 127.0.0.1:0. Writes the address it serves to DIR.addr, waits for the file
# go beside DIR, runs a 5 s test on a simulated disk whose latency bounds its
# rate (so the rate is steady), takes one scrape of its own endpoint in the
# middle of the run (DIR.scrape), then writes to DIR.out its command rate from
# `mqb stats` between 1 s and 4 s into the run (past its start-up, before its
# end) and its read p99 from `mqb latency`, and stays up for a last scrape.
package require http
set dir [lindex $argv 0]
set f [open $dir.addr.tmp w]; puts $f [mqb metrics]; close $f
file rename -force $dir.addr.tmp $dir.addr

set go [file join [file dirname $dir] go]
for {set i 0} {![file exists $go]} {incr i} {
    if {$i > 600} { puts stderr "host: no go"; exit 2 }
    after 50
}
set d [mqb add sim:blocks=1000000,latency=2000]
proc scrape {} {
    global dir
    set tok [http::geturl http://[mqb metrics]/metrics -timeout 5000]
    set f [open $dir.scrape w]; puts -nonewline $f [http::data $tok]; close $f
    http::cleanup $tok
}
proc sample {name} {
    global d $name
    set $name [list [clock milliseconds] [dict get [mqb stats $d] commands]]
}
after 1000 sample s1
after 2500 scrape
after 4000 sample s2
kiv -devices $d -test r -r10 100 -w10 0 -qd 8 -time 5 -statmode none
lassign $s1 t1 c1
lassign $s2 t2 c2
set f [open $dir.out w]
puts $f [list [expr {($c2 - $c1) * 1000.0 / ($t2 - $t1)}] [dict get [mqb latency $d] read p99_us]]
close $f
after 2500
exit 0
