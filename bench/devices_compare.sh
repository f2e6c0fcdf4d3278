#!/usr/bin/env bash
# devices_compare.sh: kiv on real transports beside the usual peer tool, in one
# run, with the ratio of the two:
#   file:   kiv on a 1 GiB file on the root filesystem (direct I/O) against
#           fio --ioengine=io_uring --direct=1 on the same file: 4 KiB random
#           reads and 70/30 random reads/writes at queue depth 1 and 32;
#   iscsi:  kiv on a tgtd LUN on 127.0.0.1 against iscsi-perf on the same LUN:
#           8-block random reads at queue depth 32;
#   sim:    bench/fio_compare.sh (the loop on a zero-latency simulated disk
#           against fio's null engine).
# kiv's figure is commands completed (mqb stats) over the wall time of a timed
# kiv run in build/kivsh. A part whose tools are missing prints why and is
# left out; the others still run.
#   usage: bench/devices_compare.sh [BUILD_DIR] [SECONDS]   (default: build 5)
set -u

here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
build=$(cd "${1:-build}" && pwd) || exit 1
secs=${2:-5}
kivsh=$build/kivsh
[ -x "$kivsh" ] || { echo "no $kivsh: build the kivsh target first" >&2; exit 77; }
work=$(mktemp -d /var/tmp/kiv-devbench.XXXXXX)
tgtdir=$work/tgt
cleanup() {
    "$src/tests/tgt_fixture.sh" stop "$tgtdir" >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

rows=()
row() { rows+=("$(printf '%-28s %14s %14s %8s' "$@")"); }
ratio() { awk -v k="$1" -v p="$2" 'BEGIN { if (k > 0 && p > 0) printf "%.2f", k / p; else print "-" }'; }

# kiv's commands per second on SPEC: kivrate SPEC READPCT WRITEPCT QD.
# Prints "RATE ERRORS MAX_OUTSTANDING P50_US P99_US" (read latency percentiles
# from mqb latency: send to completion, like fio's total latency). The rate is
# taken between the first and the last statistics pass that fell inside the
# run (a -statcallback reads the device's command count each second), so like
# fio's figure it leaves out the set-up before the first command and the wait
# for the last second's end.
kivrate() {
    cat >"$work/run.tcl" <<EOF
set d [mqb add {$1}]
set ::samples {}
proc sample {args} {
    lappend ::samples [list [clock microseconds] [dict get [mqb stats \$::d] commands]]
}
kiv -devices \$d -test r -r10 $2 -w10 $3 -translen 8 -qd $4 -time $secs -statmode none \\
    -printerrors 0 -statcallback sample
# The last pass comes after the run stopped; the one before it is the last
# that saw commands flowing.
set n [llength \$::samples]
lassign [lindex \$::samples 0] t0 c0
lassign [lindex \$::samples [expr {\$n > 2 ? \$n - 2 : \$n - 1}]] t1 c1
set rate [expr {\$t1 > \$t0 ? round((\$c1 - \$c0) * 1e6 / (\$t1 - \$t0)) : 0}]
set s [mqb stats \$d]
set r [dict get [mqb latency \$d] read]
puts "RESULT \$rate [dict get \$s errors] [dict get \$s max_outstanding] [dict get \$r p50_us] [dict get \$r p99_us]"
EOF
    "$kivsh" "$work/run.tcl" 2>&1 | awk '/^RESULT / { print $2, $3, $4, $5, $6 }'
}

# fio's IOPS (reads + writes + trims) of its one job, from its JSON report:
# the job's first three "iops" entries are those of read, write and trim.
# The report is kept in $work/fio.json for fiolat.
fiorate() {
    fio "$@" --output-format=json >"$work/fio.json"
    grep -m3 '"iops" :' "$work/fio.json" |
        awk '{ gsub(/[",]/, ""); s += $3 } END { printf "%.0f\n", s }'
}

# The read latency percentiles of the last fio run (submission to completion,
# fio's total "lat"), in µs: "P50 P99" ("- -" without python3 to read its JSON).
fiolat() {
    python3 - "$work/fio.json" 2>/dev/null <<'PY' || echo "- -"
import json, sys
p = json.load(open(sys.argv[1]))["jobs"][0]["read"]["lat_ns"]["percentile"]
print("%.1f %.1f" % (p["50.000000"] / 1000, p["99.000000"] / 1000))
PY
}
lrows=()
lrow() { lrows+=("$(printf '%-28s %10s %10s %7s %10s %10s %7s' "$@")"); }

# --- file: ---
if ! command -v fio >/dev/null 2>&1; then
    echo "file: skipped, fio is not installed" >&2
else
    img=$work/file.img
    # Written out in full so neither side reads holes.
    dd if=/dev/urandom of="$img" bs=1M count=1024 status=none conv=fsync
    for mix in "100 0 randread" "70 30 randrw"; do
        set -- $mix
        for qd in 1 32; do
            read -r k e m k50 k99 < <(kivrate "file:$img" "$1" "$2" "$qd")
            f=$(fiorate --name=peer --filename="$img" --ioengine=io_uring --direct=1 --rw="$3" \
                --rwmixread="$1" --bs=4k --iodepth="$qd" --time_based --runtime="$secs" \
                --lat_percentiles=1)
            read -r f50 f99 < <(fiolat)
            [ "${e:-0}" = 0 ] || echo "file: kiv reported $e errors ($1/$2 qd $qd)" >&2
            row "file $1/$2 qd $qd (max $m)" "${k:--}" "${f:--}" "$(ratio "${k:-0}" "${f:-0}")"
            lrow "file $1/$2 qd $qd" "${k50:--}" "${f50:--}" "$(ratio "${k50:-0}" "${f50:-0}")" \
                "${k99:--}" "${f99:--}" "$(ratio "${k99:-0}" "${f99:-0}")"
        done
    done
    rm -f "$img"
fi

# --- iscsi: ---
if ! command -v iscsi-perf >/dev/null 2>&1; then
    echo "iscsi: skipped, iscsi-perf is not installed" >&2
elif ! url=$("$src/tests/tgt_fixture.sh" start "$tgtdir" 1024 2>/dev/null); then
    echo "iscsi: skipped, tgtd could not be started" >&2
else
    read -r k e m k50 k99 < <(kivrate "$url" 100 0 32)
    [ "${e:-0}" = 0 ] || echo "iscsi: kiv reported $e errors" >&2
    p=$(timeout $((secs + 20)) iscsi-perf -m 32 -b 8 -r -t "$secs" "$url" 2>&1 |
        tr '\r' '\n' | grep -o 'iops average [0-9]*' | tail -1 | awk '{ print $3 }')
    row "iscsi read 8 blk qd 32 (max $m)" "${k:--}" "${p:--}" "$(ratio "${k:-0}" "${p:-0}")"
    "$src/tests/tgt_fixture.sh" stop "$tgtdir" >/dev/null 2>&1
fi

printf '%-28s %14s %14s %8s\n' "device, mix, depth" "kiv cmds/s" "peer IOPS" "ratio"
printf '%s\n' "${rows[@]}"
echo "peers: fio io_uring direct (file), iscsi-perf (iscsi)"
echo
if [ ${#lrows[@]} -gt 0 ]; then
    printf '%-28s %10s %10s %7s %10s %10s %7s\n' "read latency, us" "kiv p50" "fio p50" "ratio" \
        "kiv p99" "fio p99" "ratio"
    printf '%s\n' "${lrows[@]}"
    echo
fi

# --- sim: ---
echo "sim: loop on a zero-latency simulated disk against fio's null engine"
sh "$here/fio_compare.sh" "$build" || echo "sim: skipped (build the loop_bench target for it)"
