#!/usr/bin/env bash
# tgt_fixture.sh: a real iSCSI target for the tests and benchmarks, a user-space
# tgtd on 127.0.0.1 with file-backed LUNs, kept in a state directory.
#
#   tgt_fixture.sh start DIR [SIZE_MB [LUNS]]
#                                        start tgtd, make the target and LUNs 1 to
#                                        LUNS (default 1); prints the URL of LUN 1
#                                        (iscsi://127.0.0.1:PORT/IQN/1)
#   tgt_fixture.sh stop DIR              delete the target, end tgtd (SIGKILL if it
#                                        does not go), remove the backing file
#   tgt_fixture.sh kill DIR              SIGKILL tgtd at once (a target that dies)
#   tgt_fixture.sh pause DIR             SIGSTOP tgtd (a target that stops answering)
#
# `start` exits 77 when tgtd or tgtadm is missing or tgtd will not come up, so a
# caller can skip. It writes DIR/env with PORT, CTL, PID, IQN and URL.
set -u

cmd=${1:-}
dir=${2:-}
[ -n "$cmd" ] && [ -n "$dir" ] || { echo "usage: $0 start|stop|kill|pause DIR [SIZE_MB]" >&2; exit 2; }
iqn=iqn.2026-01.org.kiv.test:lun

# True when something on 127.0.0.1 accepts connections on port $1.
port_busy() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# True while process $1 runs (a killed tgtd nobody has reaped yet does not).
alive() {
    kill -0 "$1" 2>/dev/null || return 1
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    stat=${stat##*) }
    [ "${stat%% *}" != Z ]
}

# Adds LUNs 2 to $luns on control socket $1, each on a backing file of its own.
add_luns() {
    local n
    for n in $(seq 2 "$luns"); do
        truncate -s "${size}M" "$dir/lun$n.img" &&
            tgtadm -C "$1" --lld iscsi --op new --mode logicalunit --tid 1 --lun "$n" -b "$dir/lun$n.img" ||
            return 1
    done
}

stop_tgtd() {
    [ -f "$dir/env" ] || return 0
    # shellcheck disable=SC1091
    . "$dir/env"
    kill -CONT "$PID" 2>/dev/null
    if alive "$PID"; then
        # tgtd ignores SIGTERM while it has targets: remove them, then ask it to go.
        timeout 5 tgtadm -C "$CTL" --lld iscsi --op delete --mode target --tid 1 --force >/dev/null 2>&1
        timeout 5 tgtadm -C "$CTL" --op delete --mode system >/dev/null 2>&1
        for _ in $(seq 30); do alive "$PID" || break; sleep 0.1; done
        alive "$PID" && kill -KILL "$PID" 2>/dev/null
        for _ in $(seq 30); do alive "$PID" || break; sleep 0.1; done
    fi
    rm -f "$dir"/lun*.img "$dir/env" "$dir/tgtd.log"
}

case $cmd in
start)
    size=${3:-64}
    luns=${4:-1}
    command -v tgtd >/dev/null && command -v tgtadm >/dev/null || { echo "tgtd/tgtadm not installed" >&2; exit 77; }
    mkdir -p "$dir" || exit 77
    stop_tgtd
    truncate -s "${size}M" "$dir/lun.img" || exit 77
    for _ in $(seq 20); do
        port=$((20000 + RANDOM % 30000))
        port_busy "$port" && continue
        # Each tgtd gets its own control socket, named after its port.
        ctl=$port
        tgtd -f -C "$ctl" --iscsi "portal=127.0.0.1:$port" >"$dir/tgtd.log" 2>&1 </dev/null &
        pid=$!
        printf 'PORT=%s\nCTL=%s\nPID=%s\nIQN=%s\nURL=%s\n' "$port" "$ctl" "$pid" "$iqn" \
            "iscsi://127.0.0.1:$port/$iqn/1" >"$dir/env"
        up=0
        for _ in $(seq 50); do
            alive "$pid" || break
            if port_busy "$port" && tgtadm -C "$ctl" --lld iscsi --op show --mode target >/dev/null 2>&1; then
                up=1
                break
            fi
            sleep 0.1
        done
        if [ $up = 1 ] &&
           tgtadm -C "$ctl" --lld iscsi --op new --mode target --tid 1 -T "$iqn" &&
           tgtadm -C "$ctl" --lld iscsi --op new --mode logicalunit --tid 1 --lun 1 -b "$dir/lun.img" &&
           add_luns "$ctl" &&
           tgtadm -C "$ctl" --lld iscsi --op bind --mode target --tid 1 -I ALL; then
            echo "iscsi://127.0.0.1:$port/$iqn/1"
            exit 0
        fi
        stop_tgtd
        truncate -s "${size}M" "$dir/lun.img" || exit 77
    done
    echo "tgtd would not start; its log:" >&2
    cat "$dir/tgtd.log" >&2 2>/dev/null
    rm -f "$dir"/lun*.img
    exit 77
    ;;
stop)
    stop_tgtd
    ;;
kill|pause)
    [ -f "$dir/env" ] || { echo "no fixture in $dir" >&2; exit 1; }
    # shellcheck disable=SC1091
    . "$dir/env"
    if [ "$cmd" = kill ]; then kill -KILL "$PID"; else kill -STOP "$PID"; fi
    ;;
*)
    echo "unknown command $cmd" >&2
    exit 2
    ;;
esac
