# host.tcl DIR: one "host" of the Prometheus fixture, run by kivsh --metrics
# 127.0.0.1:0. Adds its simulated disk (whose latency bounds its rate), writes
# its address to DIR.addr (its series are scraped at zero before the run), waits
# for the file go beside DIR, runs an 11 s test with one scrape of its own
# mid-run (DIR.scrape) and "ms commands" lines of `mqb stats` four times a
# second (DIR.samples); then writes its read p99 to DIR.out and stays up for a
# last scrape.
package require http
set dir [lindex $argv 0]
set d [mqb add sim:blocks=1000000,latency=2000]
set f [open $dir.addr.tmp w]; puts $f [mqb metrics]; close $f
file rename -force $dir.addr.tmp $dir.addr

set go [file join [file dirname $dir] go]
for {set i 0} {![file exists $go]} {incr i} {
    if {$i > 600} { puts stderr "host: no go"; exit 2 }
    after 50
}
proc scrape {} {
    global dir
    set tok [http::geturl http://[mqb metrics]/metrics -timeout 5000]
    set f [open $dir.scrape w]; puts -nonewline $f [http::data $tok]; close $f
    http::cleanup $tok
}
set samples [open $dir.samples w]
proc sample {} {
    global d samples
    puts $samples "[clock milliseconds] [dict get [mqb stats $d] commands]"
    after 250 sample
}
sample
after 2500 scrape
kiv -devices $d -test r -r10 100 -w10 0 -qd 8 -time 11 -statmode none
sample
close $samples
after cancel sample
set f [open $dir.out w]
puts $f [dict get [mqb latency $d] read p99_us]
close $f
after 2500
exit 0
