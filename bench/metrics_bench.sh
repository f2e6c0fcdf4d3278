#!/bin/bash
# metrics_bench.sh [BUILD_DIR] [ROUNDS]: what serving /metrics costs a test.
# The device loop drives a zero-latency simulated disk (queue depth 32, one
# test thread, 4 s) in a kivsh that serves the metrics endpoint, once with no
# scraper and once with another kivsh scraping it 10 times a second, ROUNDS
# times alternately (default 3). Prints each run's commands per second, the
# medians and their ratio (with / without). Then the endpoint's own cost,
# which a busy machine does not blur: the CPU time an otherwise idle kivsh
# (the start-up device and one 4096-byte simulated disk with latency
# histograms filled) spends per scrape over 1000 scrapes, and what 10 scrapes a
# second take of one core.
set -eu
BUILD=${1:-build}
ROUNDS=${2:-3}
KIVSH=$BUILD/kivsh
TMP=$(mktemp -d)
SCRAPER=
trap '[ -n "$SCRAPER" ] && kill "$SCRAPER" 2>/dev/null; rm -rf "$TMP"' EXIT
export KIV_NO_TK=1

cat >"$TMP/run.tcl" <<'TCL'
set f [open [lindex $argv 0] w]; puts $f [mqb metrics]; close $f
after 500   ;# the scraper finds the address meanwhile
set d [mqb add sim:blocks=2097152]
set t0 [clock milliseconds]
kiv -devices $d -test r -r10 70 -w10 30 -qd 32 -time 4 -statmode none
puts [expr {[dict get [mqb stats $d] commands] * 1000 / ([clock milliseconds] - $t0)}]
TCL
cat >"$TMP/scrape.tcl" <<'TCL'
package require http
lassign $argv addrFile
while {![file exists $addrFile] || [file size $addrFile] == 0} { after 10 }
set f [open $addrFile]; set addr [string trim [read $f]]; close $f
while 1 {
    set next [expr {[clock milliseconds] + 100}]
    if {[catch {http::cleanup [http::geturl http://$addr/metrics -timeout 1000]}]} { exit 0 }
    set wait [expr {$next - [clock milliseconds]}]
    if {$wait > 0} { after $wait }
}
TCL

run() {  # run WITH_SCRAPER: prints commands per second
    rm -f "$TMP/addr"
    if [ "$1" = 1 ]; then
        "$KIVSH" "$TMP/scrape.tcl" "$TMP/addr" >/dev/null 2>&1 &
        SCRAPER=$!
    fi
    "$KIVSH" --metrics 127.0.0.1:0 "$TMP/run.tcl" "$TMP/addr" | tail -1
    if [ -n "$SCRAPER" ]; then kill "$SCRAPER" 2>/dev/null; wait "$SCRAPER" 2>/dev/null || true; SCRAPER=; fi
}
cat >"$TMP/idle.tcl" <<'TCL'
# Serves with one device whose histograms hold samples; prints the process's
# CPU seconds after the scraper has made its scrapes.
set d [mqb add sim:blocks=100000,bs=4096,latency=5]
kiv -devices $d -test r -r10 70 -w10 30 -qd 4 -ops 20000 -statmode none
set f [open [lindex $argv 0] w]; puts $f [mqb metrics]; close $f
proc cpu {} {
    set f [open /proc/self/stat]; set st [read $f]; close $f
    set st [string range $st [string last ) $st] end]
    expr {([lindex $st 12] + [lindex $st 13]) / 100.0}
}
set c0 [cpu]
while {![file exists [lindex $argv 0].done]} { after 20 }
puts [expr {[cpu] - $c0}]
TCL
cat >"$TMP/burst.tcl" <<'TCL'
package require http
lassign $argv addrFile n
while {![file exists $addrFile] || [file size $addrFile] == 0} { after 10 }
set f [open $addrFile]; set addr [string trim [read $f]]; close $f
after 200
for {set i 0} {$i < $n} {incr i} { http::cleanup [http::geturl http://$addr/metrics] }
close [open $addrFile.done w]
TCL

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

: >"$TMP/off"; : >"$TMP/on"
for i in $(seq "$ROUNDS"); do
    a=$(run 0); b=$(run 1)
    echo "round $i: without scrapes $a commands/s, with 10 scrapes/s $b commands/s"
    echo "$a" >>"$TMP/off"; echo "$b" >>"$TMP/on"
done
OFF=$(median <"$TMP/off"); ON=$(median <"$TMP/on")
awk -v a="$OFF" -v b="$ON" 'BEGIN { printf "median: without %d, with %d commands/s; ratio %.3f\n", a, b, b / a }'

rm -f "$TMP/addr" "$TMP/addr.done"
"$KIVSH" "$TMP/burst.tcl" "$TMP/addr" 1000 &
SCRAPER=$!
CPU=$("$KIVSH" --metrics 127.0.0.1:0 "$TMP/idle.tcl" "$TMP/addr" | tail -1)
wait "$SCRAPER" || true
SCRAPER=
awk -v c="$CPU" 'BEGIN { printf "endpoint: %.3f ms CPU per scrape (1000 scrapes); 10 scrapes/s take %.2f%% of one core\n", c, c }'
