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
    set rc 0
    if {$code} {
        set ec [dict get $opts -errorcode]
        if {[lindex $ec 0] eq "CHILDSTATUS"} { set rc [lindex $ec 2] } else { set rc -1 }
    }
    set fd [open $errf]; set err [read $fd]; close $fd
    file delete -force $f $errf
    return [list $rc $out $err]
}

# A fresh temporary file path inside the test directory.
proc tmpPath {name} {
    return [file join [tcltest::temporaryDirectory] kiv-[pid]-$name]
}
