#!/bin/sh
# fio_compare.sh: commands per second of the device loop against a zero-latency
# simulated disk (bench/loop_bench) beside fio's null engine, at queue depth 1
# and 32, with their ratio. Builds nothing: run it after building loop_bench
# (an optimised build gives the meaningful figures).
#   usage: bench/fio_compare.sh [BUILD_DIR]      (default: build)
set -eu

build=${1:-build}
bench="$build/bench/loop_bench"
[ -x "$bench" ] || { echo "no $bench: build the loop_bench target first" >&2; exit 77; }
command -v fio >/dev/null 2>&1 || { echo "fio is not installed" >&2; exit 77; }

# Loop figures: the cmds_per_sec counter of each depth, in commands per second.
loopout=$("$bench" --benchmark_format=json)
loop_rate() {
    printf '%s\n' "$loopout" | tr -d ' ' | awk -v want="\"name\":\"BM_LoopRandomRead/$1/" '
        index($0, want) == 1 { found = 1 }
        found && /^"cmds_per_sec":/ { sub(/^"cmds_per_sec":/, ""); sub(/,$/, ""); print; exit }'
}

# fio's read IOPS from its JSON report (jq when present, else a plain match).
fio_rate() {
    out=$(fio --name=null --ioengine=null --rw=randread --bs=4k --size=1g \
              --iodepth="$1" --time_based --runtime=5 --output-format=json)
    if command -v jq >/dev/null 2>&1; then
        printf '%s\n' "$out" | jq '.jobs[0].read.iops'
    else
        printf '%s\n' "$out" | tr -d ' ' | grep -m1 '^"iops":' | sed 's/^"iops"://; s/,$//'
    fi
}

printf '%-6s %16s %16s %8s\n' depth loop_cmds/s fio_iops ratio
for qd in 1 32; do
    l=$(loop_rate "$qd")
    f=$(fio_rate "$qd")
    awk -v qd="$qd" -v l="$l" -v f="$f" \
        'BEGIN { printf "%-6s %16.0f %16.0f %8.2f\n", qd, l, f, (f > 0 ? l / f : 0) }'
done
