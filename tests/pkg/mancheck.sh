#!/bin/sh
# mancheck.sh: renders a manual page with man(1) and fails on any warning groff
# or man gives, or when the page renders without its NAME section. Exits 77
# (skipped) when man is not installed.  Usage: mancheck.sh PAGE
page=$1
command -v man >/dev/null 2>&1 || { echo "man is not installed"; exit 77; }
[ -r "$page" ] || { echo "cannot read $page"; exit 1; }
export MANWIDTH=80 LC_ALL=C.UTF-8
warnings=$(man --warnings -l "$page" 2>&1 >/dev/null)
if [ -n "$warnings" ]; then
  printf '%s\n' "$warnings"
  exit 1
fi
text=$(man -l "$page" 2>/dev/null)
case $text in
  *NAME*) exit 0 ;;
  *) echo "$page renders without a NAME section"; exit 1 ;;
esac
