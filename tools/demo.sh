#!/bin/sh
# The demo behind `make demo`: makes a sample source under WORK, serves it over HTTP on 127.0.0.1
# for the run, and runs examples/mirror.lua against it twice; then, with the server stopped, once
# more to show how a failed run ends. Exits 0 when all three behaved as they should.
#
#   sh tools/demo.sh BUILD WORK [PACKAGE-BYTES [LIMIT-KIB/S]]
#
# BUILD holds lua/update.so and tools/makesource; WORK receives source/, repository/, export/.
set -eu
[ $# -ge 2 ] || { echo "usage: sh tools/demo.sh BUILD WORK [PACKAGE-BYTES [LIMIT-KIB/S]]" >&2; exit 2; }
build=$(cd "$1" && pwd)
mkdir -p "$2"
work=$(cd "$2" && pwd)
size=${3:-4194304}
limit=${4:-10240}
top=$(cd "$(dirname "$0")/.." && pwd)

rm -rf "$work/source" "$work/repository" "$work/export"
"$build/tools/makesource" --products 2 --components 6 --size "$size" "$work/source" >/dev/null

# The server takes a free port and names it in a file it creates once it listens.
rm -f "$work/port"
python3 "$top/tools/serve.py" "$work/source" "$work/port" >"$work/server.log" 2>&1 &
server=$!
stop() { kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; }
trap stop EXIT
trap 'exit 130' INT TERM
while [ ! -s "$work/port" ]; do
  kill -0 "$server" 2>/dev/null || { cat "$work/server.log" >&2; echo "demo: the HTTP server did not start" >&2; exit 1; }
  sleep 0.05
done
port=$(cat "$work/port")
url=http://127.0.0.1:$port

mirror() {
  LUA_CPATH="$build/lua/?.so;;" lua5.2 "$top/examples/mirror.lua" --limit "$limit" \
    "$work/repository" "$url" "$work/export"
}

echo "== A sample source, served at $url for this demo, from $work/source"
echo "== First run: LUA_CPATH='$build/lua/?.so;;' lua5.2 examples/mirror.lua --limit $limit REPOSITORY $url EXPORT"
mirror
echo
echo "== Second run, the same command: nothing is downloaded again"
mirror
echo
stop
echo "== Third run, the server stopped: the script exits non-zero with a one-line reason"
if mirror >/dev/null; then
  echo "demo: the run against a stopped server succeeded" >&2
  exit 1
else
  echo "(exit status $?)"
fi
echo
echo "Demo done. The repository is in $work/repository, the exported component in $work/export."
