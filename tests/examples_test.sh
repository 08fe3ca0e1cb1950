#!/bin/sh
# The example scripts as a user runs them, against a generated source: examples/mirror.lua twice
# through the demo (tools/demo.sh, loopback HTTP), then the other examples, one through a proxy.
# Checks exit codes and the key lines. Every run removes /dev/shm/sem.zovrelay.
#   sh tests/examples_test.sh BUILD
set -eu
build=$(cd "$1" && pwd)
top=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
pids=
cleanup() {
  for pid in $pids; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# expect FILE PATTERN COUNT: the output holds COUNT lines matching the basic regular expression.
expect() {
  found=$(grep -c -- "$2" "$1" || true)
  [ "$found" -eq "$3" ] || { fail "$(basename "$1"): $3 lines expected matching '$2', found $found"; cat "$1"; }
}
run() {  # run NAME SCRIPT ARGS...: output to $tmp/NAME.out, exit status to $status
  name=$1; shift
  script=$1; shift
  status=0
  LUA_CPATH="$build/lua/?.so;;" lua5.2 "$top/examples/$script" "$@" >"$tmp/$name.out" 2>&1 || status=$?
}

# mirror.lua, twice through the demo, then against the stopped server.
if sh "$top/tools/demo.sh" "$build" "$tmp/demo" 5000 0 >"$tmp/demo.out" 2>&1; then :; else fail "demo.sh exited $?"; fi
out=$tmp/demo.out
expect "$out" '^  c3t4l1p-1r-1o-1-1.100.1.0.zip .* [0-9.]* KiB of 25.0 KiB .*%' 1
expect "$out" '^downloaded 5 packages, 25.0 KiB in ' 1
expect "$out" '^nothing to download: the repository is up to date$' 1
expect "$out" '^exported kerno_english 1.01.1 into ' 2
expect "$out" '^clean-up: server.ini reset, 5 per-version archives removed$' 1
expect "$out" '^clean-up: server.ini reset, 0 per-version archives removed$' 1  # none rebuilt for nothing
expect "$out" '^  c3t4l1p-1r-1o-1_merged.zip  *5.5 KiB$' 2
expect "$out" '^mirror: listing http://127.0.0.1:[0-9]* failed: cannot connect: http://127.0.0.1:[0-9]*/source.ini (status -14)$' 1
expect "$out" '^(exit status 3)$' 1
[ "$(ls "$tmp/demo/export")" = c3t4l1p-1r-1o-1-1.100.1.0.zip ] || fail "export: $(ls "$tmp/demo/export")"
source=$tmp/demo/source

run components components.lua "$tmp/components" "$source"
[ $status -eq 0 ] || fail "components.lua exited $status"
expect "$tmp/components.out" '^  -  *1.200.1  c2t1207960066l-1p-1r-1o-1$' 2
expect "$tmp/components.out" '^  tavi  *1.030.1  c22t2213l-1p-1r-1o-1$' 2
[ "$(ls "$tmp/components/packages" | grep -c "_merged\.zip$")" -eq 2 ] || fail "components.lua mirrored $(ls "$tmp/components/packages")"

# patterns_except_kerno.lua through tinyproxy, to the source served over HTTP.
python3 "$top/tools/serve.py" "$source" "$tmp/http.port" >"$tmp/http.log" 2>&1 &
pids="$pids $!"
proxy=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
printf 'Port %s\nListen 127.0.0.1\nLogLevel Connect\n' "$proxy" >"$tmp/tinyproxy.conf"
tinyproxy -d -c "$tmp/tinyproxy.conf" >"$tmp/tinyproxy.log" 2>&1 &
pids="$pids $!"
port=
for _ in $(seq 400); do
  port=$(cat "$tmp/http.port" 2>/dev/null || true)
  [ -n "$port" ] && curl -sf -o /dev/null -x "http://127.0.0.1:$proxy" "http://127.0.0.1:$port/server.ini" && break
  sleep 0.05
done
url=http://127.0.0.1:$port
run proxied patterns_except_kerno.lua "$tmp/proxied" "$url" 127.0.0.1 "$proxy"
[ $status -eq 0 ] || fail "patterns_except_kerno.lua exited $status"
expect "$tmp/proxied.out" 'c3t4' 0
expect "$tmp/proxied.out" '^tavi  *1.030.1  c22t2213l-1p-1r-1o-1$' 1
expect "$tmp/proxied.out" '^-  *1.04.1   c3t[12]10l2p-1r-1o-1$' 2
expect "$tmp/tinyproxy.log" "GET $url/pattern/c3t110l2p-1r-1o-1-1.400.1.0.zip" 1

# cleanup.lua keeps the engine's per-version archive only.
echo "assert(require('update').everything(arg[1], 'c1t100', arg[2], {buildpatch = true, ke = true}))" |
  LUA_CPATH="$build/lua/?.so;;" lua5.2 - "$tmp/cleanup" "$source"
run cleanup cleanup.lua "$tmp/cleanup"
[ $status -eq 0 ] || fail "cleanup.lua exited $status"
expect "$tmp/cleanup.out" '^keep    .*/packages/c2t1207960066l-1p-1r-1o-1_1.200.1.0.zip$' 1
expect "$tmp/cleanup.out" '^remove  .*/packages/c.*_1.[0-9]*.1.0.zip$' 5
[ "$(ls "$tmp/cleanup/packages" | grep -vc _merged.zip)" -eq 1 ] || fail "cleanup.lua left $(ls "$tmp/cleanup/packages")"

# cancel.lua: a budget of three packages stops the first run, the next one completes.
run cancel1 cancel.lua "$tmp/cancel" "$source" 15400
[ "$status" -eq 0 ] || fail "cancel.lua exited $status"
run cancel2 cancel.lua "$tmp/cancel" "$source" 15400
expect "$tmp/cancel1.out" '^stopped before .*: 15360 of 15400 bytes spent (cancelled)$' 1
expect "$tmp/cancel2.out" '^complete: 10240 bytes downloaded$' 1
[ "$(ls "$tmp/cancel/packages" | grep -c "_merged\.zip$")" -eq 5 ] || fail "cancel.lua mirrored $(ls "$tmp/cancel/packages")"

if [ $failures -ne 0 ]; then
  echo "0 passed, $failures failed"
  exit 1
fi
echo "1 passed, 0 failed"
