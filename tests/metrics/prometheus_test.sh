#!/bin/bash
# prometheus_test.sh KIVSH SOURCE_DIR: the metrics endpoint against a real
# Prometheus. Two kivsh processes (two "hosts") serve /metrics on free ports
# of 127.0.0.1; a Prometheus of our own (free port, own data directory and
# configuration) scrapes them every second while each runs an 11 s test.
# Checks: promtool accepts a scrape taken mid-run; the lab-wide rate of
# kiv_commands_total over 8 s of the runs agrees within 10% with the hosts'
# own `mqb stats` counts over the same 8 s (long enough that
# the lag between a scrape's time stamp and its reading averages out); histogram_quantile(0.99) of the
# whole runs' read latency agrees with the hosts' `mqb latency` p99 within one
# bucket. Skips (77) without prometheus or promtool.
set -u
KIVSH=$1
SRC=$2
HERE=$SRC/tests/metrics
command -v prometheus >/dev/null && command -v promtool >/dev/null || {
    echo "SKIP: prometheus and promtool are not installed"; exit 77; }

TMP=$(mktemp -d)
PIDS=()
cleanup() {
    for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null; done
    for p in "${PIDS[@]}"; do
        for _ in $(seq 50); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$p" 2>/dev/null
    done
    rm -rf "$TMP"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
fail() { echo "FAIL: $*"; exit 1; }

export KIV_NO_TK=1
# Every peer runs under timeout(1) as well: if this script is killed outright
# (SIGKILL), none outlives it by more than that.
LIFE=50
for h in h1 h2; do
    timeout $LIFE "$KIVSH" --metrics 127.0.0.1:0 "$HERE/host.tcl" "$TMP/$h" >"$TMP/$h.log" 2>&1 &
    PIDS+=($!)
done
for h in h1 h2; do
    for _ in $(seq 100); do [ -s "$TMP/$h.addr" ] && break; sleep 0.1; done
    [ -s "$TMP/$h.addr" ] || fail "host $h did not serve: $(cat "$TMP/$h.log")"
done

# A free port for Prometheus: one the kernel hands out and we close again.
PORT=$(echo 'set s [socket -server {} -myaddr 127.0.0.1 0]; puts [lindex [fconfigure $s -sockname] 2]; close $s' \
       | "$KIVSH")
cat >"$TMP/prometheus.yml" <<YML
global:
  scrape_interval: 1s
  scrape_timeout: 900ms
scrape_configs:
  - job_name: kiv
    static_configs:
      - targets: ['$(cat "$TMP/h1.addr")', '$(cat "$TMP/h2.addr")']
YML
timeout $LIFE prometheus --config.file="$TMP/prometheus.yml" --storage.tsdb.path="$TMP/data" \
    --web.listen-address="127.0.0.1:$PORT" >"$TMP/prometheus.log" 2>&1 &
PIDS+=($!)
q() { "$KIVSH" "$HERE/promql.tcl" "$PORT" "$1"; }
q ready || fail "Prometheus did not come up: $(tail -5 "$TMP/prometheus.log")"

# Prometheus takes its first targets a few seconds after it starts: wait
# until both hosts have been scraped idle, then let them run together.
for _ in $(seq 40); do
    [ "$(q 'count(up == 1)' 2>/dev/null)" = 2 ] && break
    sleep 0.5
done
[ "$(q 'count(up == 1)')" = 2 ] || fail "Prometheus does not scrape both hosts: $(tail -5 "$TMP/prometheus.log")"
sleep 1
touch "$TMP/go"
GO=$(date +%s%3N)
# The rate over 1 to 9 s into the runs, when both are going.
T=$(( GO + 9000 ))
while [ "$(date +%s%3N)" -lt $(( T + 300 )) ]; do sleep 0.1; done
AT=$(awk -v t=$T 'BEGIN { printf "%.3f", t / 1000 }')
RATE=$(q 'sum(rate(kiv_commands_total[8s]))' "$AT") || fail "rate query"
HOSTS=$(q 'count(kiv_test_running == 1)' "$AT") || fail "running query"

for h in h1 h2; do
    for _ in $(seq 200); do [ -s "$TMP/$h.out" ] && break; sleep 0.1; done
    [ -s "$TMP/$h.out" ] || fail "host $h did not finish: $(tail -5 "$TMP/$h.log")"
done
# The whole run's read latency: the rate over a window that holds the zeros
# scraped before the run and the counts after it (the hosts linger 2.5 s).
P99=$(q 'histogram_quantile(0.99, sum by (le) (rate(kiv_latency_seconds_bucket{kind="read"}[40s])))') \
    || fail "quantile query"

# The scrape taken mid-run. promtool's lint objects to one name the endpoint
# keeps on purpose (kiv_mb_per_second, the statistics line's own unit); any
# other finding or a parse error fails.
for h in h1 h2; do
    grep -q '^kiv_test_running 1$' "$TMP/$h.scrape" || fail "$h's mid-run scrape does not show a running test"
    out=$(promtool check metrics <"$TMP/$h.scrape" 2>&1)
    rc=$?
    other=$(echo "$out" | grep -v '^kiv_mb_per_second metric names should not contain abbreviated units$' | grep .)
    if [ $rc -eq 1 ] || [ -n "$other" ]; then fail "promtool check metrics ($rc): $out"; fi
done
echo "promtool: both mid-run scrapes pass (besides the kiv_mb_per_second name)"

# Compare with the hosts' own figures: their `mqb stats` command rates over
# the same 8 s (counts interpolated between their samples), and their `mqb
# latency` p99s.
hostRate() {  # hostRate FILE FROM_MS TO_MS
    awk -v a="$2" -v b="$3" '
        function at(t,   i) { for (i = 2; i <= n; i++) if (ts[i] >= t) return c[i-1] + (c[i] - c[i-1]) * (t - ts[i-1]) / (ts[i] - ts[i-1]); return -1 }
        { n++; ts[n] = $1; c[n] = $2 }
        END { x = at(a); y = at(b); if (x < 0 || y < 0 || ts[1] > a) print "none"; else printf "%.1f\n", (y - x) * 1000 / (b - a) }' "$1"
}
R1=$(hostRate "$TMP/h1.samples" $(( T - 8000 )) $T)
R2=$(hostRate "$TMP/h2.samples" $(( T - 8000 )) $T)
read -r P1 <"$TMP/h1.out"
read -r P2 <"$TMP/h2.out"
[ "$R1" != none ] && [ "$R2" != none ] || fail "the hosts' samples do not cover the 8 s window"
awk -v r="$RATE" -v r1="$R1" -v r2="$R2" -v n="$HOSTS" 'BEGIN {
    own = r1 + r2
    if (n != 2) { print "FAIL: " n " hosts seen running mid-run, not 2"; exit 1 }
    if (r < own * 0.9 || r > own * 1.1) { printf "FAIL: rate %.0f vs hosts %.0f\n", r, own; exit 1 }
    printf "rate: Prometheus %.0f/s, hosts %.0f/s (%.1f%%)\n", r, own, (r - own) * 100 / own
}' || exit 1
# One bucket: the buckets are a quarter of a power of two apart, so a bucket
# is at most 1/4 of its lower bound wide (1/5 of its upper).
awk -v q="$P99" -v a="$P1" -v b="$P2" 'BEGIN {
    q *= 1e6; lo = (a < b ? a : b) * 0.75; hi = (a > b ? a : b) * 1.25
    if (q < lo || q > hi) { printf "FAIL: p99 %.1f us vs hosts %.1f and %.1f us\n", q, a, b; exit 1 }
    printf "p99: Prometheus %.1f us, hosts %.1f and %.1f us\n", q, a, b
}' || exit 1
echo PASS
