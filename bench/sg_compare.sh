#!/usr/bin/env bash
# sg_compare.sh: kiv's sg backend beside fio's sg engine and sgp_dd on the same
# scsi_debug disk (128 MiB in RAM, delay=0), inside the QEMU guest of
# tests/vm/run: 4 KiB reads at queue depth 1, 16 and 32, each tool for
# SECONDS, one after the other in one boot, ROUNDS times per depth (kiv first
# in odd rounds, last in even ones), with the median commands per second of
# each and the median of the per-round ratios kiv/fio and kiv/sgp_dd with
# their min and max. fio's sg engine keeps one descriptor, which holds 16 commands
# (SG_MAX_QUEUE): past that it stalls, hence the row at 16.
# The guest runs under TCG emulation, so the absolute figures say little; the
# ratios are the result.
#   kiv:    -test r -r10 100 -translen 8 (random 4 KiB reads), commands
#           completed over the seconds between its first and last statistics
#           pass (mqb stats, read from a -statcallback);
#   fio:    --ioengine=sg --rw=randread --bs=4k --iodepth=QD, its IOPS;
#   sgp_dd: bs=512 bpt=8 thr=QD (QD threads, one 4 KiB read each at a time)
#           over the whole disk, commands over its own transfer time. sgp_dd
#           reads in order (it has no random mode); on scsi_debug's RAM store
#           the order costs nothing.
#   usage: bench/sg_compare.sh [BUILD_DIR] [SECONDS] [ROUNDS]
#          (default: build 5 3; ROUNDS also taken from $ROUNDS)
set -u

here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")

if [ "${1:-}" != --in-vm ]; then
    build=$(cd "${1:-build}" && pwd) || exit 1
    secs=${2:-5}
    rounds=${3:-${ROUNDS:-3}}
    [ -x "$build/kivsh" ] || { echo "no $build/kivsh: build the kivsh target first" >&2; exit 77; }
    KIV_BUILD_DIR=$build exec "$src/tests/vm/run" -p "delay=0 dev_size_mb=128" -t $((600 + rounds * secs * 12)) -C /tmp -- \
        bash "$here/sg_compare.sh" --in-vm "$build" "$secs" "$rounds"
fi

# --- in the guest ---
build=$2
secs=$3
rounds=$4
work=$(mktemp -d /tmp/sgbench.XXXXXX)
dev=/dev/sg0
blocks=$(( $(cat /sys/class/scsi_generic/sg0/device/block/*/size) ))  # 512-byte units

kivrate() {  # QD -> "RATE ERRORS MAX_OUTSTANDING"
    cat >"$work/run.tcl" <<EOF
set d [mqb add sg:$dev]
set ::samples {}
proc sample {args} {
    lappend ::samples [list [clock microseconds] [dict get [mqb stats \$::d] commands]]
}
kiv -devices \$d -test r -r10 100 -w10 0 -translen 8 -qd $1 -time $secs -statmode none \\
    -printerrors 0 -statcallback sample
set n [llength \$::samples]
lassign [lindex \$::samples 0] t0 c0
lassign [lindex \$::samples [expr {\$n > 2 ? \$n - 2 : \$n - 1}]] t1 c1
set rate [expr {\$t1 > \$t0 ? round((\$c1 - \$c0) * 1e6 / (\$t1 - \$t0)) : 0}]
set s [mqb stats \$d]
puts "RESULT \$rate [dict get \$s errors] [dict get \$s max_outstanding]"
EOF
    "$build/kivsh" "$work/run.tcl" 2>&1 | awk '/^RESULT / { print $2, $3, $4 }'
}

fiorate() {  # QD -> IOPS
    fio --name=sg --ioengine=sg --filename=$dev --rw=randread --bs=4k --iodepth="$1" \
        --time_based --runtime="$secs" --size=$((blocks * 512)) --output-format=json 2>/dev/null |
        grep -m1 '"iops" :' | awk '{ gsub(/[",]/, ""); printf "%.0f\n", $3 }'
}

sgpddrate() {  # QD -> IOPS over the whole disk
    sgp_dd if=$dev of=/dev/null bs=512 bpt=8 thr="$1" count="$blocks" time=1 2>&1 |
        awk -v cmds=$((blocks / 8)) '/time to transfer data/ {
            for (i = 1; i <= NF; i++) if ($i == "was") { printf "%.0f\n", cmds / $(i + 1); exit } }'
}

ratio() { awk -v k="$1" -v p="$2" 'BEGIN { if (k > 0 && p > 0) printf "%.2f", k / p; else print "-" }'; }
median() { tr ' ' '\n' | grep -v -e '^-$' -e '^$' | sort -g | awk '{ v[NR] = $1 } END { if (NR) print v[int((NR + 1) / 2)]; else print "-" }'; }
spread() {  # numbers -> "MEDIAN [MIN-MAX]"
    tr ' ' '\n' | grep -v -e '^-$' -e '^$' | sort -g |
        awk '{ v[NR] = $1 } END { if (NR) printf "%s [%s-%s]", v[int((NR + 1) / 2)], v[1], v[NR]; else print "-" }'
}

echo "$rounds rounds of $secs s per tool; ratio = kiv / peer per round: median [min-max]"
printf '%-20s %8s %8s %8s %-18s %-18s\n' "4 KiB reads, sg" kiv fio sgp_dd kiv/fio kiv/sgp_dd
for qd in 1 16 32; do
    ks=() fs=() ps=() rf=() rp=() m=-
    for ((r = 1; r <= rounds; r++)); do
        if ((r % 2)); then
            read -r k e m < <(kivrate "$qd"); f=$(fiorate "$qd"); p=$(sgpddrate "$qd")
        else
            p=$(sgpddrate "$qd"); f=$(fiorate "$qd"); read -r k e m < <(kivrate "$qd")
        fi
        [ "${e:-0}" = 0 ] || echo "kiv reported $e errors at qd $qd" >&2
        ks+=("${k:--}") fs+=("${f:--}") ps+=("${p:--}")
        rf+=("$(ratio "${k:-0}" "${f:-0}")") rp+=("$(ratio "${k:-0}" "${p:-0}")")
    done
    printf '%-20s %8s %8s %8s %-18s %-18s\n' "qd $qd (kiv max $m)" "$(echo "${ks[*]}" | median)" \
        "$(echo "${fs[*]}" | median)" "$(echo "${ps[*]}" | median)" "$(echo "${rf[*]}" | spread)" \
        "$(echo "${rp[*]}" | spread)"
done
echo "(commands per second in a TCG guest: compare the ratios, not the figures)"
rm -rf "$work"
