#!/bin/bash
# prometheus_test.sh KIVSH SOURCE_DIR: the metrics endpoint against a real
# Prometheus. Two kivsh processes (two "hosts") serve /metrics on free ports
# of 127.0.0.1; a Prometheus of our own (free port, own data directory and
# configuration) scrapes them every second while each runs a 5 s test.
# Checks: promtool accepts a scrape taken mid-run; the lab-wide rate of
# kiv_commands_total agrees with the hosts' own command counts within 10%;
# histogram_quantile(0.99) of the read latency agrees with the hosts' `mqb
# latency` p99 within one bucket. Skips (77) without prometheus or promtool.
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
sleep 4
RATE=$(q 'sum(rate(kiv_commands_total[3s]))') || fail "rate query"
P99=$(q 'histogram_quantile(0.99, sum by (le) (rate(kiv_latency_seconds_bucket{kind="read"}[3s])))') \
    || fail "quantile query"
HOSTS=$(q 'count(kiv_test_running == 1)') || fail "running query"

for h in h1 h2; do
    for _ in $(seq 150); do [ -s "$TMP/$h.out" ] && break; sleep 0.1; done
    [ -s "$TMP/$h.out" ] || fail "host $h did not finish: $(tail -5 "$TMP/$h.log")"
done

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

# Compare with the hosts' own figures: their command rates from `mqb stats`
# over the steady middle of their runs, and their `mqb latency` p99s.
read -r R1 P1 <"$TMP/h1.out"
read -r R2 P2 <"$TMP/h2.out"
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
