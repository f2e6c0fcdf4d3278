#!/bin/sh
# fio_compare.sh: commands per second of the device loop against a zero-latency
# simulated disk (bench/loop_bench) beside fio's null engine, at queue depth 1
# and 32. Each depth is run ROUNDS times, the loop and fio taking turns (the
# loop first in odd rounds, last in even ones); printed are the median rates,
# the median of the per-round ratios loop/fio with their min and max, and the
# CPU time per command of each (the loop: loop_bench's CPU time over its
# commands; fio: (usr_cpu + sys_cpu) % of job_runtime over its commands).
# Builds nothing: run it after building loop_bench (an optimised build gives
# the meaningful figures).
#   usage: bench/fio_compare.sh [BUILD_DIR] [ROUNDS] [SECONDS]
#          (default: build 5 2; ROUNDS also from $ROUNDS; SECONDS per fio run
#          and the least a loop_bench run takes)
set -eu

build=${1:-build}
rounds=${2:-${ROUNDS:-5}}
secs=${3:-2}
bench="$build/bench/loop_bench"
[ -x "$bench" ] || { echo "no $bench: build the loop_bench target first" >&2; exit 77; }
command -v fio >/dev/null 2>&1 || { echo "fio is not installed" >&2; exit 77; }
command -v python3 >/dev/null 2>&1 || { echo "python3 is needed to read the JSON reports" >&2; exit 77; }
work=$(mktemp -d /tmp/kiv-fiocmp.XXXXXX)
trap 'rm -rf "$work"' EXIT

# One loop_bench run at depth $1: "CMDS_PER_SEC CPU_US_PER_CMD".
loop_run() {
    "$bench" --benchmark_filter="BM_LoopRandomRead/$1/2000000/0/" --benchmark_min_time="$secs" \
        --benchmark_format=json >"$work/loop.json" 2>/dev/null
    python3 - "$work/loop.json" <<'PY'
import json, sys
b = [x for x in json.load(open(sys.argv[1]))["benchmarks"] if x.get("run_type", "iteration") == "iteration"][0]
rate = b["cmds_per_sec"]
# real_time and cpu_time are per iteration, in the same unit: the share of
# the wall time the loop spent on a CPU, over its rate.
print("%.0f %.4f" % (rate, 1e6 / rate * b["cpu_time"] / b["real_time"]))
PY
}

# One fio null-engine run at depth $1: "IOPS CPU_US_PER_CMD".
fio_run() {
    fio --name=null --ioengine=null --rw=randread --bs=4k --size=1g --iodepth="$1" \
        --time_based --runtime="$secs" --output-format=json >"$work/fio.json"
    python3 - "$work/fio.json" <<'PY'
import json, sys
j = json.load(open(sys.argv[1]))["jobs"][0]
ios = j["read"]["total_ios"]
print("%.0f %.4f" % (j["read"]["iops"], (j["usr_cpu"] + j["sys_cpu"]) / 100.0 * j["job_runtime"] * 1000.0 / ios))
PY
}

# Median, min and max of the numbers on stdin: "MED MIN MAX".
mmm() {
    sort -g | awk '{ v[NR] = $1 }
        END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
              printf "%g %g %g\n", m, v[1], v[NR] }'
}

echo "$rounds rounds; ratio = loop / fio per round: median [min-max]; us: CPU per command"
printf '%-6s %14s %14s %-19s %8s %8s\n' depth loop_cmds/s fio_iops ratio "loop us" "fio us"
for qd in 1 32; do
    : >"$work/rounds"
    r=1
    while [ "$r" -le "$rounds" ]; do
        if [ $((r % 2)) -eq 1 ]; then
            l=$(loop_run "$qd"); f=$(fio_run "$qd")
        else
            f=$(fio_run "$qd"); l=$(loop_run "$qd")
        fi
        echo "$l $f" >>"$work/rounds"
        r=$((r + 1))
    done
    set -- $(awk '{ print $1 }' "$work/rounds" | mmm); l=$1
    set -- $(awk '{ print $3 }' "$work/rounds" | mmm); f=$1
    set -- $(awk '{ print $2 }' "$work/rounds" | mmm); lc=$1
    set -- $(awk '{ print $4 }' "$work/rounds" | mmm); fc=$1
    set -- $(awk '{ print $1 / $3 }' "$work/rounds" | mmm)
    awk -v qd="$qd" -v l="$l" -v f="$f" -v m="$1" -v a="$2" -v b="$3" -v lc="$lc" -v fc="$fc" \
        'BEGIN { printf "%-6s %14.0f %14.0f %-19s %8.3f %8.3f\n", qd, l, f,
                 sprintf("%.2f [%.2f-%.2f]", m, a, b), lc, fc }'
done
