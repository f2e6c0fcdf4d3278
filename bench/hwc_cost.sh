#!/usr/bin/env bash
# hwc_cost.sh: what keyed data checks (-hwc 1) cost: the same timed kiv run at
# queue depth 32 with and without them, on a simulated disk that keeps its data
# (sim:store=1) and on a 256 MiB file (direct I/O), 8-block random writes and
# 50/50 random reads/writes, and the ratio of the two rates. With -hwc every
# written block is stamped (CRC32C), every block read is checked against its
# key and the journal, and each command takes an entry of the write tracker.
# The rate is commands completed (mqb stats) over the run's wall time; each
# figure is the better of two runs.
#   usage: bench/hwc_cost.sh [BUILD_DIR] [SECONDS]   (default: build 5)
set -u

build=$(cd "${1:-build}" && pwd) || exit 1
secs=${2:-5}
kivsh=$build/kivsh
[ -x "$kivsh" ] || { echo "no $kivsh: build the kivsh target first" >&2; exit 77; }
work=$(mktemp -d /var/tmp/kiv-hwcbench.XXXXXX)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
img=$work/disk.img
truncate -s 256M "$img"

# One process per device and mix: a one-second warm-up (the store or the file
# extents get allocated), then runs without and with -hwc in turn, twice each;
# prints the better rate of each ("PLAIN KEYED MISCOMPARES"). Usage:
# rates SPEC READPCT WRITEPCT.
rates() {
    cat >"$work/run.tcl" <<EOF
set d [mqb add {$1}]
proc run {hwc secs} {
    set c0 [dict get [mqb stats \$::d] commands]
    set t0 [clock microseconds]
    kiv -devices \$::d -test r -lba 0:524287 -r10 $2 -w10 $3 -translen 8 -qd 32 -time \$secs -hwc \$hwc \\
        -statmode none -printerrors 0
    set t1 [clock microseconds]
    expr {round(([dict get [mqb stats \$::d] commands] - \$c0) * 1e6 / (\$t1 - \$t0))}
}
run 0 1
set best {0 0}
foreach round {1 2} {
    foreach hwc {0 1} { lset best \$hwc [expr {max([lindex \$best \$hwc], [run \$hwc $secs])}] }
}
puts "RESULT \$best [dict get [mqb stats \$d] miscompares]"
EOF
    "$kivsh" "$work/run.tcl" 2>/dev/null | awk '/^RESULT/ { print $2, $3, $4 }'
}

printf '%-32s %12s %12s %7s\n' "device, mix (qd 32, 8 blocks)" "-hwc 0 /s" "-hwc 1 /s" ratio
for spec in "sim:store=1,blocks=524288" "file:$img"; do
    for mix in "0 100" "50 50"; do
        set -- $mix
        read -r plain keyed bad < <(rates "$spec" "$1" "$2")
        name=${spec%%:*}
        [ "$name" = file ] && name="file (256 MiB)"
        printf '%-32s %12s %12s %7s%s\n' "$name, r$1/w$2" "$plain" "$keyed" \
            "$(awk -v a="$keyed" -v b="$plain" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')" \
            "$([ "${bad:-0}" != 0 ] && echo "  ($bad miscompares!)")"
    done
done
