# demo.tcl: a first kiv run. Five seconds of random 70% read / 30% write
# traffic at queue depth 8 on a simulated 1 GB disk, statistics on the
# terminal, and one injected medium error so the error report shows.
#   build/kivsh examples/demo.tcl

set d [mqb add sim:blocks=2000000,latency=20]

# The first read that touches blocks 1000-400000 fails once with
# MEDIUM ERROR / UNRECOVERED READ ERROR (03/11/00), INFORMATION = failing LBA.
mqb fault $d add -op read -lba 1000:400000 -count 1 -status check -sense {03 11 00} -uec 0x1200 -info 1

kiv -devices $d -test r -r10 70 -w10 30 -qd 8 -time 5 -statmode term

set s [mqb stats $d]
puts "device $d received [dict get $s commands] commands\
      ([dict get $s reads] reads, [dict get $s writes] writes),\
      [dict get $s errors] failed, at most [dict get $s max_outstanding] in flight"
