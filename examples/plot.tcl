# plot.tcl: two simulated drives under the same mixed load, with a latency
# spike injected into the second half-way through the run. A statistics
# callback collects each drive's ops/s, MB/s and read p99 latency every
# second (`mqb latency ... -reset` starts a new interval each time), and the
# figures are drawn as line charts on a Tk canvas.
#   build/kivsh examples/plot.tcl ?-time SECONDS? ?-png FILE?
# With -png the chart is written as a PNG (needs the Img package) and the
# script exits; it then prints "point X Y" for one vertex of the first
# drive's ops/s line, for checking the picture. Exits 77 without Tk.

array set opt {-time 10 -png ""}
foreach {k v} $argv {
    if {![info exists opt($k)]} { puts stderr "usage: plot.tcl ?-time SECONDS? ?-png FILE?"; exit 2 }
    set opt($k) $v
}
if {[catch {package require Tk}]} {
    puts stderr "plot.tcl: needs Tk and a display"
    exit 77
}

set a [mqb add sim:blocks=1000000,latency=200]
set b [mqb add sim:blocks=1000000,latency=200]
set spikeAt [expr {$opt(-time) / 2}]
set names [dict create $a "drive $a" $b "drive $b (spike at ${spikeAt} s)"]
set series [dict create]

# Called once per drive and second: record its figures, then start a new
# latency interval for it. Half-way through, every read of drive b is held
# back 5 ms for two seconds.
proc collect {} {
    global kiv_index kiv_time kiv_ops_per_sec kiv_mb_per_sec series a b spikeAt opt
    if {$kiv_time > $opt(-time)} return   ;# the final pass's empty interval
    set p99 [dict get [mqb latency $kiv_index] read p99_us]
    mqb latency $kiv_index -reset
    dict lappend series $kiv_index [list $kiv_time $kiv_ops_per_sec $kiv_mb_per_sec $p99]
    if {$kiv_index == $b && $kiv_time == $spikeAt} {
        mqb fault $b add -op read -status delay -delay 5000
    } elseif {$kiv_index == $b && $kiv_time == $spikeAt + 2} {
        mqb fault $b clear
    }
}

kiv -devices "$a $b" -test r -r10 70 -w10 30 -translen 8:8 -qd 8 -time $opt(-time) \
    -statmode none -statcallback collect

# --- the chart: three panels stacked, one line per drive ---
set W 760; set H 180; set left 80; set top 40; set gap 50
set colors [list $a #1f5fbf $b #d03020]
set panels {{1 "operations / s"} {2 "MB / s"} {3 "read p99 latency (us)"}}
set height [expr {$top + [llength $panels] * ($H + $gap) + 10}]
wm title . "kiv: two drives, latency spike on the second"
wm deiconify .   ;# kivsh starts with its main window withdrawn
canvas .c -width [expr {$left + $W + 40}] -height $height -background white -highlightthickness 0
pack .c
.c create text [expr {$left + $W / 2}] 16 -text "kiv example: latency spike injected on drive $b" -font {Helvetica 12 bold}
set tmax 1
dict for {dev rows} $series {
    foreach row $rows { set tmax [expr {max($tmax, [lindex $row 0])}] }
}
set firstPoint {}
foreach panel $panels {
    lassign $panel col title
    set i [lsearch -exact $panels $panel]
    set y0 [expr {$top + $i * ($H + $gap)}]
    set ymax 0.0
    dict for {dev rows} $series {
        foreach row $rows { set ymax [expr {max($ymax, [lindex $row $col])}] }
    }
    set ymax [expr {$ymax > 0 ? $ymax * 1.1 : 1.0}]
    .c create rectangle $left $y0 [expr {$left + $W}] [expr {$y0 + $H}] -outline #808080
    .c create text $left [expr {$y0 - 8}] -anchor w -text $title -font {Helvetica 10 bold}
    foreach frac {0 0.5 1} {
        set y [expr {$y0 + $H - $frac * $H}]
        .c create text [expr {$left - 6}] $y -anchor e -text [format %.0f [expr {$frac * $ymax}]] -font {Helvetica 8}
    }
    for {set t 0} {$t <= $tmax} {incr t [expr {max(1, $tmax / 10)}]} {
        set x [expr {$left + $t * $W / double($tmax)}]
        .c create text $x [expr {$y0 + $H + 10}] -text "${t}s" -font {Helvetica 8}
    }
    # Drive a last, so its line is on top where the two coincide.
    foreach dev [list $b $a] {
        if {![dict exists $series $dev]} continue
        set rows [dict get $series $dev]
        set pts {}
        foreach row $rows {
            lappend pts [expr {round($left + [lindex $row 0] * $W / double($tmax))}] \
                        [expr {round($y0 + $H - [lindex $row $col] * $H / $ymax)}]
        }
        if {[llength $pts] >= 4} {
            .c create line {*}$pts -fill [dict get $colors $dev] -width 3
        } elseif {[llength $pts] == 2} {
            lassign $pts x y
            .c create oval [expr {$x - 3}] [expr {$y - 3}] [expr {$x + 3}] [expr {$y + 3}] \
                -fill [dict get $colors $dev] -outline ""
        }
        if {$col == 1 && $dev == $a && $firstPoint eq "" && [llength $pts] >= 2} {
            set firstPoint [lrange $pts 0 1]
        }
    }
}
# Legend: one entry per drive, in a row above the first panel.
set lx [expr {$left + $W - 360}]
set ly [expr {$top - 8}]
dict for {dev color} $colors {
    .c create line $lx $ly [expr {$lx + 24}] $ly -fill $color -width 3
    .c create text [expr {$lx + 30}] $ly -anchor w -text [dict get $names $dev] -font {Helvetica 9}
    incr lx 130
}

if {$opt(-png) ne ""} {
    package require Img
    # The window image is read from the screen: wait until it is there.
    if {![winfo viewable .c]} { tkwait visibility .c }
    update
    set img [image create photo -format window -data .c]
    $img write $opt(-png) -format png
    if {$firstPoint ne ""} { puts "point $firstPoint" }
    exit 0
}
