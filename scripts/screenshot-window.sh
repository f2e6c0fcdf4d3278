#!/bin/sh
# screenshot-window.sh: takes docs/window.png, the picture of the status window
# in the README. Starts a private X server (Xvfb :99, 1024x768x24), runs a short
# two-device test on simulated disks in window mode with read errors injected
# on the first disk, grabs the screen three seconds into the run (failing row
# already red, error table filling, halt button live), crops it to the window
# and stops the X server.
#
# Usage: scripts/screenshot-window.sh [BUILD_DIR]   (default: build)
# Needs Xvfb, xwd and ImageMagick's convert.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
out=$root/docs/window.png
disp=:99

for tool in Xvfb xwd convert; do
    command -v "$tool" >/dev/null 2>&1 || { echo "screenshot-window: $tool not found" >&2; exit 1; }
done
[ -x "$build/kivsh" ] || { echo "screenshot-window: $build/kivsh not built" >&2; exit 1; }

Xvfb "$disp" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xpid=$!
script=$(mktemp /tmp/kiv-shot-XXXXXX.tcl)
trap 'kill $xpid 2>/dev/null || true; rm -f "$script"' EXIT INT TERM

# Wait (at most 10 s) for the server's socket.
i=0
while [ ! -S /tmp/.X11-unix/X99 ]; do
    i=$((i + 1))
    [ $i -le 100 ] || { echo "screenshot-window: Xvfb did not start" >&2; exit 1; }
    sleep 0.1
done

cat > "$script" <<'TCL'
set out [lindex $argv 0]
set bad [mqb add sim:blocks=2000000,latency=100]
set good [mqb add sim:blocks=2000000,latency=100]
mqb fault $bad add -op read -status check -sense {03 11 00} -uec 0x0101 -every 400
mqb fault $bad add -op write -status check -sense {04 44 00} -uec 0x3400 -every 600
# The run services Tcl events while it goes on, so this fires mid-run: grab the
# whole screen, then keep the window and a small margin around it.
after 3000 {
    set w [expr {[winfo width .kivstat] + 20}]
    set h [expr {[winfo height .kivstat] + 20}]
    set x [expr {max(0, [winfo rootx .kivstat] - 10)}]
    set y [expr {max(0, [winfo rooty .kivstat] - 10)}]
    exec sh -c "xwd -root -silent | convert xwd:- -crop ${w}x${h}+${x}+${y} +repage png:$out"
}
kiv -devices "$bad $good" -time 5 -qd 8 -statmode window -test r -r10 70 -w10 30
exit 0
TCL

DISPLAY=$disp timeout 60 "$build/kivsh" "$script" "$out" >/dev/null
echo "screenshot-window: wrote $out"
