#!/bin/sh
# Runs every benchmark: the programs build/bench/*_bench, the Lua scripts bench/*_bench.lua and
# the Python scripts bench/*_bench.py.
# Each prints its figures beside its peer's, with the ratio.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${UPDATE_BUILD_DIR:-$top/build}
status=0
for program in "$build"/bench/*_bench; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  "$program" || status=1
done
for script in "$top"/bench/*_bench.lua; do
  [ -f "$script" ] || continue
  echo "== $(basename "$script")"
  # A script picks its relay (build/fake or build/lua) from UPDATE_BUILD_DIR.
  (cd "$top" && UPDATE_BUILD_DIR="$build" lua5.2 "$script") || status=1
done
for script in "$top"/bench/*_bench.py; do
  [ -f "$script" ] || continue
  echo "== $(basename "$script")"
  UPDATE_BUILD_DIR="$build" python3 "$script" || status=1
done
exit $status
