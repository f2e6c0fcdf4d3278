# check_plot.tcl: runs examples/plot.tcl with -png in a child kivsh (same
# display) and checks the picture: a PNG of the canvas's size, and the colour
# of the first drive's line at a vertex the script reports. Exits 77 without
# Tk or Img.  Usage: kivsh check_plot.tcl KIVSH SOURCE_DIR OUT.png
lassign $argv kivsh src out
if {[catch {package require Tk}] || [catch {package require Img}]} {
    puts "check_plot: no Tk display or no Img package: skipped"
    exit 77
}
file delete -force $out
set rc [catch {exec $kivsh [file join $src examples plot.tcl] -time 4 -png $out 2>@1} log]
if {$rc || ![regexp -line {^point (\d+) (\d+)$} $log -> x y]} {
    puts "check_plot: plot.tcl failed:\n$log"
    exit 1
}
set img [image create photo -file $out]
set problems {}
if {[file size $out] < 5000} { lappend problems "PNG only [file size $out] bytes" }
if {[image width $img] != 880 || [image height $img] < 600} {
    lappend problems "PNG is [image width $img]x[image height $img]"
}
# The vertex lies on a 3-pixel line of #1f5fbf; allow for one pixel of rounding.
set found 0
foreach dx {0 -1 1} {
    foreach dy {0 -1 1} {
        lassign [$img get [expr {$x + $dx}] [expr {$y + $dy}]] r g b
        if {abs($r - 0x1f) < 16 && abs($g - 0x5f) < 16 && abs($b - 0xbf) < 16} { set found 1 }
    }
}
if {!$found} { lappend problems "no line colour at $x,$y: [$img get $x $y]" }
if {[llength $problems]} {
    puts "check_plot: [join $problems {; }]"
    exit 1
}
puts "check_plot: $out [image width $img]x[image height $img], line at $x,$y"
exit 0
