# helpers.tcl: what the tcltest files share.

set ::kivBuild [expr {[info exists ::env(KIV_BUILD_DIR)] ? $::env(KIV_BUILD_DIR) : [pwd]}]
set ::kivsh [file join $::kivBuild kivsh]

# Runs `script` with the interpreter's `puts` to stdout redirected into a string,
# and returns {code result output}: the script's return code, its result, and
# everything it (and the kiv command) wrote to standard output through Tcl.
proc capture {script} {
    rename ::puts ::__real_puts
    set ::__captured ""
    proc ::puts {args} {
        set nl 1
        if {[lindex $args 0] eq "-nonewline"} { set nl 0; set args [lrange $args 1 end] }
        if {[llength $args] == 1 || ([llength $args] == 2 && [lindex $args 0] eq "stdout")} {
            append ::__captured [lindex $args end]
            if {$nl} { append ::__captured \n }
            return
        }
        if {$nl} { ::__real_puts {*}$args } else { ::__real_puts -nonewline {*}$args }
    }
    set code [catch {uplevel 1 $script} result]
    rename ::puts {}
    rename ::__real_puts ::puts
    return [list $code $result $::__captured]
}

# Runs a script in a child kivsh and returns {exitcode stdout stderr}: how to see
# what the process itself writes (formatted printing, not Tcl puts).
proc kivshChild {script {timeout 120}} {
    set f [file join [tcltest::temporaryDirectory] child-[pid]-[clock clicks].tcl]
    writeFile $f $script
    set code [catch {exec timeout $timeout $::kivsh $f 2> $f.err} out opts]
    set err [readFile $f.err]
    file delete -force $f $f.err
    return [list [exitCode $code $opts] $out $err]
}
# The exit code of a finished exec (0 when it succeeded), or the name of the
# signal that ended it.
proc exitCode {code opts} {
    set ec [expr {$code ? [dict get $opts -errorcode] : {}}]
    expr {!$code ? 0 : [lindex $ec 0] in {CHILDSTATUS CHILDKILLED} ? [lindex $ec 2] : -1}
}

proc tmpPath {name} {
    return [file join [tcltest::temporaryDirectory] kiv-[pid]-$name]
}

proc readFile {path} { set f [open $path]; set t [read $f]; close $f; return $t }
proc writeFile {path text} { set f [open $path w]; puts -nonewline $f $text; close $f }

# The statistics header, its rule, and one statistics line (fields as groups).
set ::header "Indx  Test  Cmd       Ops  Last Lba   TL Secs  Ops/Sec   mb/s  errcnt"
set ::rule [string repeat - 69]
set ::lineRe {^ *(\d+) +(\S+) +(\S+) +(\d+) +(\d+) +(\d+) +(\d+) +(\d+) +(\d+)\.(\d\d) +(\d+)$}
proc statLines {out} { lsearch -all -inline -regexp [split $out \n] $::lineRe }

# Keyed blocks (-hwc 1) in a sequential pass of 8-block commands over `lba` of
# device d, with the command mix `mix`; returns what capture returns.
proc keyedRun {d lba mix args} {
    capture [list kiv -devices $d -test s -lba $lba -translen 8:8 {*}$mix -hwc 1 -statmode none {*}$args]
}
# kiv's report of a MISCOMPARE on a READ(10): sense key 0E, ASC/ASCQ 1D/00,
# VALID with INFORMATION = `lba` (fixed format).
proc miscompareRe {d lba} {
    set info [join [lmap i {24 16 8 0} {format %02X [expr {($lba >> $i) & 0xFF}]}] " "]
    return "KIV Error: Check Condition on device $d:\nTAGID: 0x\[0-9A-F\]+ CDB: 28 (?:\[0-9A-F\]{2} ){9}\nSense Data:\nF0 00 0E $info 18 00 00 00 00 1D 00 "
}
# Copies one 512-byte block from block `from` of `src` over block `to` of `dst`.
proc copyBlock {src from dst to} {
    exec dd if=$src of=$dst bs=512 skip=$from seek=$to count=1 conv=notrunc 2>/dev/null
}

# A user-space tgtd on 127.0.0.1 (tests/tgt_fixture.sh) with `luns` LUNs of
# `mb` MiB in a fresh directory: returns {dir url} (the URL of LUN 1), or fails
# with the fixture's reason when tgtd cannot be had. `tgtDo stop` ends it.
proc tgtStart {name {luns 1} {mb 64}} {
    set dir [tmpPath tgt-$name]
    if {[catch {exec [tgtScript] start $dir $mb $luns 2>@1} url]} {
        file delete -force $dir
        error "no tgtd: $url"
    }
    return [list $dir [lindex [split [string trim $url] \n] end]]
}
proc tgtScript {} { file join $::env(KIV_SOURCE_DIR) tests tgt_fixture.sh }
# What `what` does to the target in `dir` (stop, kill, pause); stop removes `dir`.
proc tgtDo {what dir} {
    exec [tgtScript] $what $dir
    if {$what eq "stop"} { file delete -force $dir }
}

# Waits until `cond` (an expression, in the caller) is true, polling every
# 50 ms for at most `ms`; returns whether it came true.
proc waitFor {cond {ms 20000}} {
    set end [expr {[clock milliseconds] + $ms}]
    while {![uplevel 1 [list expr $cond]]} {
        if {[clock milliseconds] > $end} { return 0 }
        after 50
    }
    return 1
}

# Runs kiv with `args` on device d, its output captured, and returns a dict:
# code, out (what it printed), then d's counters as `mqb stats` gives them.
proc runOn {d args} {
    lassign [capture [list kiv -devices $d {*}$args]] code res out
    dict merge [dict create code $code out $out] [mqb stats $d]
}
