#!/bin/sh
# Runs the whole suite (the valgrind runs only when the rest passes) against each deliberate fault of
# faults.txt, one at a time, in a scratch copy of the checked-out tree (the tree itself is never
# modified), with its own build directory so that each fault costs only an incremental rebuild.
# Prints one line a fault: caught (with the failing tests), MISSED, stale (the expression no longer
# changes its file) or build-fails.
#   sh tests/faults/run.sh [NAME...]   every fault by default; FAULTS_DIR: the scratch directory
#                                      (build/faults); FAULTS_REV: a commit whose suite is measured
set -u
top=$(cd "$(dirname "$0")/../.." && pwd)
scratch=${FAULTS_DIR:-$top/build/faults}
src=$scratch/src
build=$scratch/build
jobs=${JOBS:-2}
launcher=
command -v ccache >/dev/null && launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
mkdir -p "$src" "$build"

# The tree as checked out (tracked and untracked files, without what git ignores), or the commit
# FAULTS_REV, to measure an earlier suite against the same faults. Extracted with the time of
# extraction: a file restored after an earlier run's fault is older than that fault's object file,
# which the build would otherwise keep.
if [ -n "${FAULTS_REV:-}" ]; then
  git -C "$top" archive "$FAULTS_REV" | tar -C "$src" -xmf -
else
  (cd "$top" && git ls-files -co --exclude-standard | while read -r f; do [ -e "$f" ] && echo "$f"; done |
    tar -cf - -T -) | tar -C "$src" -xmf -
fi
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo $launcher >"$scratch/configure.log" 2>&1 ||
  { cat "$scratch/configure.log"; exit 1; }

# The packaging tests are left out: they pack the git checkout, which the scratch copy is not, and
# no fault in the list is theirs to catch.
suite() {  # suite LOG: builds and runs every test, valgrind's last; 0 passed, 1 failed, 2 build failed
  cmake --build "$build" -j "$jobs" >"$1" 2>&1 || return 2
  (cd "$build" && ctest -j "$jobs" --timeout 600 -LE 'memcheck|package' >>"$1" 2>&1) || return 1
  (cd "$build" && ctest -j "$jobs" --timeout 600 -L memcheck >>"$1" 2>&1) || return 1
}
failed() { sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\) .*/\1/p' "$1" | tr '\n' ' '; }

if ! suite "$scratch/pristine.log"; then
  echo "the suite fails without any fault:"; failed "$scratch/pristine.log"; echo
  exit 1
fi
cp "$top/tests/faults/faults.txt" "$scratch/faults.txt"  # read as it was when the run began
caught=0
missed=0
while read -r name file expression; do
  case $name in ''|\#*) continue ;; esac
  if [ $# -gt 0 ]; then
    case " $* " in *" $name "*) ;; *) continue ;; esac
  fi
  log=$scratch/$name.log
  cp "$src/$file" "$scratch/original"
  sed -e "$expression" "$scratch/original" >"$src/$file"
  if cmp -s "$scratch/original" "$src/$file"; then
    echo "$name: stale"
    continue
  fi
  suite "$log"
  case $? in
    0) echo "$name: MISSED"; missed=$((missed + 1)) ;;
    1) echo "$name: caught by $(failed "$log")"; caught=$((caught + 1)) ;;
    2) echo "$name: build-fails (see $log)" ;;
  esac
  cp "$scratch/original" "$src/$file"  # a new time stamp, so the next build drops the fault
done <"$scratch/faults.txt"
echo "$caught caught, $missed missed"
