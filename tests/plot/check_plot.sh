#!/bin/sh
# check_plot.sh: the CTest entry of the plot example: runs check_plot.tcl
# under a private X server. Exits 77 (skipped) when there is no xvfb-run.
#   check_plot.sh KIVSH SOURCE_DIR OUT.png
command -v xvfb-run >/dev/null 2>&1 || { echo "check_plot: no xvfb-run: skipped"; exit 77; }
dir=$(dirname "$0")
exec xvfb-run -a "$1" "$dir/check_plot.tcl" "$1" "$2" "$3"
