# multi.tcl: three simulated drives tested at once, each in its own thread,
# with an error control file deciding which errors stop a drive.
#   build/kivsh examples/multi.tcl
set dir [file dirname [info script]]

set a [mqb add sim:blocks=1000000,latency=100]
set b [mqb add sim:blocks=1000000,latency=100]
set c [mqb add sim:blocks=1000000,latency=100]

# Drive a: every 500th read is recovered (01/17/01): reported, counted, tolerated.
mqb fault $a add -op read -every 500 -status check -sense {01 17 01} -uec 0x0101
# Drive b: one unrecovered read error (03/11/00, UEC 0x1234) halts it.
mqb fault $b add -op read -lba 200000:300000 -count 1 -status check \
    -sense {03 11 00} -uec 0x1234 -info 1
# Drive c runs clean.

kiv -devices "$a $b $c" -test r -r10 80 -w10 20 -qd 16 -time 3 -statmode term \
    -errorfile [file join $dir errors.kcq] -errorstats /tmp/kiv-errstats.txt \
    -logerrors /tmp/kiv-errors.log -printerrors 0

puts "--- /tmp/kiv-errstats.txt"
puts -nonewline [exec cat /tmp/kiv-errstats.txt]
