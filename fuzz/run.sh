#!/bin/sh
# fuzz/run.sh BUILD_DIR SECONDS: runs every fuzz target for SECONDS from its seed corpus. New
# inputs go to a temporary corpus that is removed afterwards; crashes are kept in
# BUILD_DIR/fuzz/artifacts for turning into regression tests.
set -eu
build=$(cd "$1" && pwd)
seconds=$2
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$build/fuzz/artifacts"
status=0
for target in "$build"/fuzz/*_fuzz; do
  name=$(basename "$target" _fuzz)
  corpus=$(mktemp -d)
  echo "== $name: $seconds s"
  # With a /dev/shm of its own: the module removes the machine-wide semaphore file after each context.
  result=0
  sh "$top/tests/gates/isolated.sh" "$target" -max_total_time="$seconds" -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$build/fuzz/artifacts/" "$corpus" "$top/fuzz/corpus/$name" 2>"$corpus.log" || result=$?
  if [ $result -eq 77 ]; then
    cat "$corpus.log"
  elif [ $result -ne 0 ]; then
    tail -n 40 "$corpus.log"
    status=1
  else
    grep -E '^stat::number_of_executed_units' "$corpus.log" || true
  fi
  rm -rf "$corpus" "$corpus.log"
done
exit $status
