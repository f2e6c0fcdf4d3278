# promql.tcl PORT EXPR ?TIME?: evaluates EXPR as an instant query (at TIME, in
# seconds since the epoch, else now) through the HTTP API of the Prometheus on
# 127.0.0.1:PORT and prints the first sample's value;
# exits 1 when the query fails or has no result. With EXPR "ready", waits up
# to 15 s for the server to say it is ready.
package require http
package require json
lassign $argv port expr at
if {$expr eq "ready"} {
    for {set i 0} {$i < 150} {incr i} {
        if {![catch {http::geturl http://127.0.0.1:$port/-/ready -timeout 1000} tok]} {
            set code [http::ncode $tok]
            http::cleanup $tok
            if {$code == 200} { exit 0 }
        }
        after 100
    }
    exit 1
}
set q [http::formatQuery query $expr {*}[expr {$at ne "" ? [list time $at] : {}}]]
set tok [http::geturl http://127.0.0.1:$port/api/v1/query?$q -timeout 5000]
set body [http::data $tok]
http::cleanup $tok
set r [json::json2dict $body]
if {[dict get $r status] ne "success" || [llength [dict get $r data result]] == 0} {
    puts stderr "query \"$expr\" gave: $body"
    exit 1
}
puts [lindex [dict get [lindex [dict get $r data result] 0] value] 1]
