#!/usr/bin/env bash
# devices_compare.sh: kiv on real transports beside the usual peer tool, in one
# run. Every row is run ROUNDS times, kiv and its peers taking turns (kiv
# first in odd rounds, last in even ones, so that a machine that slowly gets
# busier or idler weighs on both sides alike), and prints for each peer:
# the median commands per second of both, the median of the per-round ratios
# kiv/peer with their min and max, and the CPU time (user + system) each used
# per command, with the median of the per-round CPU ratios and their spread.
#   file:   kiv on a 1 GiB file on the root filesystem (direct I/O) against
#           fio --ioengine=io_uring --direct=1 on the same file, as it comes
#           and with --fixedbufs --registerfiles: 4 KiB random reads and 70/30
#           random reads/writes at queue depth 1 and 32;
#   iscsi:  kiv on a tgtd LUN on 127.0.0.1 against iscsi-perf on the same LUN:
#           8-block random reads at queue depth 1 and 32;
#   sg:     bench/sg_compare.sh (kiv against fio's sg engine in the VM rig),
#           when this tree has it;
#   sim:    bench/fio_compare.sh (the loop on a zero-latency simulated disk
#           against fio's null engine), with the same rounds.
# How each side is measured:
#   kiv         commands completed (mqb stats) and the CPU time of all of
#               kivsh's threads (/proc/self/task/*/schedstat, nanoseconds),
#               both sampled by a -statcallback once a second: the figures
#               are taken between the first sample and the last one inside
#               the run, so start-up, set-up and the final drain are left out;
#   fio         its JSON report: IOPS of reads + writes, and CPU per command
#               = (usr_cpu + sys_cpu) % of job_runtime over the commands done;
#   iscsi-perf  its final "iops average", and CPU per command = the user +
#               system time of the whole process (log-in included, as it
#               gives no other) over iops average * seconds.
# A part whose tools are missing prints why and is left out; the others
# still run.
#   usage: bench/devices_compare.sh [BUILD_DIR] [SECONDS] [ROUNDS]
#          (default: build 4 5; SECONDS per run, at least 3; ROUNDS at least 1,
#          also taken from $ROUNDS)
set -u

here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
build=$(cd "${1:-build}" && pwd) || exit 1
secs=${2:-4}
rounds=${3:-${ROUNDS:-5}}
[ "$secs" -ge 3 ] 2>/dev/null || { echo "SECONDS must be 3 or more" >&2; exit 2; }
[ "$rounds" -ge 1 ] 2>/dev/null || { echo "ROUNDS must be 1 or more" >&2; exit 2; }
kivsh=$build/kivsh
[ -x "$kivsh" ] || { echo "no $kivsh: build the kivsh target first" >&2; exit 77; }
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to read fio's JSON" >&2; exit 77; }
work=$(mktemp -d /var/tmp/kiv-devbench.XXXXXX)
tgtdir=$work/tgt
cleanup() {
    "$src/tests/tgt_fixture.sh" stop "$tgtdir" >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# --- measuring one run of each side ---

# One kiv run: kivsh run.tcl SPEC READPCT WRITEPCT QD SECONDS prints
# "RESULT RATE CPU_US_PER_CMD ERRORS MAX_OUTSTANDING P50_US P99_US" (read
# latency percentiles from mqb latency: send to completion, like fio's total
# latency).
cat >"$work/run.tcl" <<'EOF'
lassign $argv spec rpct wpct qd secs
set d [mqb add $spec]
set ::d $d
set ::samples {}
# CPU time of every thread of this process so far, in nanoseconds.
proc cpuNs {} {
    set ns 0
    foreach f [glob -nocomplain /proc/self/task/*/schedstat] {
        if {![catch {open $f} ch]} {
            incr ns [lindex [read $ch] 0]
            close $ch
        }
    }
    return $ns
}
proc sample {args} {
    lappend ::samples [list [clock microseconds] [dict get [mqb stats $::d] commands] [cpuNs]]
}
kiv -devices $d -test r -r10 $rpct -w10 $wpct -translen 8 -qd $qd -time $secs -statmode none \
    -printerrors 0 -statcallback sample
# The last pass comes after the run stopped; the one before it is the last
# that saw commands flowing.
set n [llength $::samples]
lassign [lindex $::samples 0] t0 c0 u0
lassign [lindex $::samples [expr {$n > 2 ? $n - 2 : $n - 1}]] t1 c1 u1
set rate [expr {$t1 > $t0 ? round(($c1 - $c0) * 1e6 / ($t1 - $t0)) : 0}]
set cpu [expr {$c1 > $c0 ? ($u1 - $u0) / 1e3 / ($c1 - $c0) : 0}]
set s [mqb stats $d]
set r [dict get [mqb latency $d] read]
puts [format "RESULT %d %.2f %d %d %s %s" $rate $cpu [dict get $s errors] \
    [dict get $s max_outstanding] [dict get $r p50_us] [dict get $r p99_us]]
EOF
kivrun() {
    "$kivsh" "$work/run.tcl" "$@" 2>&1 | awk '/^RESULT / { print $2, $3, $4, $5, $6, $7 }'
}

# One fio run with the given options: prints "IOPS CPU_US_PER_CMD P50_US P99_US"
# (the read latency percentiles, "- -" for a job without reads).
fiorun() {
    fio "$@" --output-format=json >"$work/fio.json" 2>/dev/null || { echo "- - - -"; return; }
    python3 - "$work/fio.json" <<'PY' || echo "- - - -"
import json, sys
j = json.load(open(sys.argv[1]))["jobs"][0]
ios = j["read"]["total_ios"] + j["write"]["total_ios"]
iops = j["read"]["iops"] + j["write"]["iops"]
cpu = (j["usr_cpu"] + j["sys_cpu"]) / 100.0 * j["job_runtime"] * 1000.0 / ios if ios else 0
p = j["read"].get("lat_ns", {}).get("percentile")
lat = "%.1f %.1f" % (p["50.000000"] / 1000, p["99.000000"] / 1000) if p else "- -"
print("%.0f %.2f %s" % (iops, cpu, lat))
PY
}

# One iscsi-perf run: iscsiperf URL QD prints "IOPS CPU_US_PER_CMD".
iscsiperf() {
    timeout $((secs + 20)) /usr/bin/time -f "TIME %U %S" iscsi-perf -m "$2" -b 8 -r -t "$secs" "$1" \
        2>&1 | tr '\r' '\n' | awk -v s="$secs" '
        /iops average/ { for (i = 1; i < NF; i++) if ($i == "average") iops = $(i + 1) }
        /^TIME / { cpu = $2 + $3 }
        END { if (iops > 0) printf "%d %.2f\n", iops, cpu * 1e6 / (iops * s); else print "- -" }'
}

# --- rounds and their summary ---

# Median, min and max of the numbers on stdin ("-" lines skipped):
# "MED MIN MAX", or "- - -" when there are none.
mmm() {
    grep -v '^-' | sort -g | awk '{ v[NR] = $1 }
        END { if (!NR) { print "- - -"; exit }
              m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
              printf "%g %g %g\n", m, v[1], v[NR] }'
}
fmt_spread() { # MED MIN MAX -> "0.98 [0.95-1.02]"
    awk -v m="$1" -v a="$2" -v b="$3" 'BEGIN { if (m == "-") print "-"; else printf "%.2f [%.2f-%.2f]", m, a, b }'
}

# The distinct words of the arguments, joined by "/".
uniq_words() { printf '%s\n' "$@" | sort -un | paste -sd/; }

rows=()
row() { rows+=("$(printf '%-26s %-10s %10s %10s %-19s %7s %7s %-19s' "$@")"); }
lrows=()
lrow() { lrows+=("$(printf '%-26s %8s %8s %8s %8s' "$@")"); }

# summarize NAME PEER FILE: FILE holds one line per round, "KIV_RATE PEER_RATE
# KIV_CPU PEER_CPU"; adds the row.
summarize() {
    local f=$3 k p kc pc r c
    read -r k _ < <(awk '{ print $1 }' "$f" | mmm)
    read -r p _ < <(awk '{ print $2 }' "$f" | mmm)
    read -r kc _ < <(awk '{ print $3 }' "$f" | mmm)
    read -r pc _ < <(awk '{ print $4 }' "$f" | mmm)
    r=$(awk '$1 != "-" && $2 != "-" && $2 > 0 { print $1 / $2 }' "$f" | mmm)
    c=$(awk '$3 != "-" && $4 != "-" && $4 > 0 { print $3 / $4 }' "$f" | mmm)
    row "$1" "$2" "$(printf '%.0f' "$k" 2>/dev/null || echo -)" \
        "$(printf '%.0f' "$p" 2>/dev/null || echo -)" "$(fmt_spread $r)" \
        "$(printf '%.2f' "$kc" 2>/dev/null || echo -)" "$(printf '%.2f' "$pc" 2>/dev/null || echo -)" \
        "$(fmt_spread $c)"
}

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
            name="file $1/$2 qd $qd"
            : >"$work/plain" >"$work/fixed" >"$work/lat"
            maxes=
            for ((r = 1; r <= rounds; r++)); do
                fioargs=(--name=peer --filename="$img" --ioengine=io_uring --direct=1 --rw="$3"
                         --rwmixread="$1" --bs=4k --iodepth="$qd" --time_based --runtime="$secs"
                         --lat_percentiles=1)
                if ((r % 2)); then
                    read -r k kc e m k50 k99 < <(kivrun "file:$img" "$1" "$2" "$qd" "$secs")
                    read -r f fc f50 f99 < <(fiorun "${fioargs[@]}")
                    read -r x xc _ < <(fiorun "${fioargs[@]}" --fixedbufs --registerfiles)
                else
                    read -r x xc _ < <(fiorun "${fioargs[@]}" --fixedbufs --registerfiles)
                    read -r f fc f50 f99 < <(fiorun "${fioargs[@]}")
                    read -r k kc e m k50 k99 < <(kivrun "file:$img" "$1" "$2" "$qd" "$secs")
                fi
                [ "${e:-0}" = 0 ] || echo "$name: kiv reported $e errors" >&2
                maxes="$maxes ${m:--}"
                echo "${k:--} ${f:--} ${kc:--} ${fc:--}" >>"$work/plain"
                echo "${k:--} ${x:--} ${kc:--} ${xc:--}" >>"$work/fixed"
                echo "${k50:--} ${f50:--} ${k99:--} ${f99:--}" >>"$work/lat"
            done
            summarize "$name (max $(uniq_words $maxes))" "fio" "$work/plain"
            summarize "" "fio fixed" "$work/fixed"
            l=()
            for col in 1 2 3 4; do
                read -r v _ < <(awk -v c="$col" '{ print $c }' "$work/lat" | mmm)
                l+=("$v")
            done
            lrow "$name" "${l[@]}"
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
    for qd in 1 32; do
        : >"$work/iscsi"
        maxes=
        for ((r = 1; r <= rounds; r++)); do
            if ((r % 2)); then
                read -r k kc e m _ < <(kivrun "$url" 100 0 "$qd" "$secs")
                read -r p pc < <(iscsiperf "$url" "$qd")
            else
                read -r p pc < <(iscsiperf "$url" "$qd")
                read -r k kc e m _ < <(kivrun "$url" 100 0 "$qd" "$secs")
            fi
            [ "${e:-0}" = 0 ] || echo "iscsi qd $qd: kiv reported $e errors" >&2
            maxes="$maxes ${m:--}"
            echo "${k:--} ${p:--} ${kc:--} ${pc:--}" >>"$work/iscsi"
        done
        summarize "iscsi 8 blk qd $qd (max $(uniq_words $maxes))" "iscsi-perf" "$work/iscsi"
    done
    "$src/tests/tgt_fixture.sh" stop "$tgtdir" >/dev/null 2>&1
fi

echo "$rounds rounds of $secs s per side; ratio = kiv / peer per round: median [min-max]"
printf '%-26s %-10s %10s %10s %-19s %7s %7s %-19s\n' "device, mix, depth" "peer" "kiv cmd/s" \
    "peer IOPS" "ratio" "kiv us" "peer us" "CPU/cmd ratio"
printf '%s\n' "${rows[@]}"
echo "us: CPU time (user + system) per command, median of the rounds"
echo
if [ ${#lrows[@]} -gt 0 ]; then
    printf '%-26s %8s %8s %8s %8s\n' "read latency, us (median)" "kiv p50" "fio p50" "kiv p99" \
        "fio p99"
    printf '%s\n' "${lrows[@]}"
    echo
fi

# --- sg: ---
if [ -f "$here/sg_compare.sh" ]; then
    echo "sg: kiv against fio's sg engine in the VM rig"
    ROUNDS=$rounds bash "$here/sg_compare.sh" "$build" "$secs" || echo "sg: skipped (see above)"
    echo
fi

# --- sim: ---
echo "sim: loop on a zero-latency simulated disk against fio's null engine"
ROUNDS=$rounds sh "$here/fio_compare.sh" "$build" || echo "sim: skipped (build the loop_bench target for it)"
