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
    set fd [open $f w]; puts $fd $script; close $fd
    set errf $f.err
    set code [catch {exec timeout $timeout $::kivsh $f 2> $errf} out opts]
    set err [readFile $errf]
    file delete -force $f $errf
    return [list [exitCode $code $opts] $out $err]
}
# The exit code of a finished exec (0 when it succeeded).
proc exitCode {code opts} {
    set ec [expr {$code ? [dict get $opts -errorcode] : {}}]
    expr {!$code ? 0 : [lindex $ec 0] eq "CHILDSTATUS" ? [lindex $ec 2] : -1}
}

# A fresh temporary file path inside the test directory.
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
