#!/bin/sh
# update.so must export luaopen_update and nothing else, need libzovrelay.so by name and find it
# in its own directory; each relay library must export the thirteen calls.
set -eu
module=$1; shift
fail() { echo "FAIL: $*"; exit 1; }

exported=$(readelf --dyn-syms -W "$module" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $5 != "LOCAL" && $8 != "" { print $8 }' | sort -u)
[ "$exported" = "luaopen_update" ] || fail "update.so exports: $exported"
readelf -d "$module" | grep -q 'NEEDED.*\[libzovrelay\.so\]' || fail "update.so does not need libzovrelay.so"
readelf -d "$module" | grep -q 'RUNPATH.*\[\$ORIGIN\]' || fail "update.so has no RUNPATH \$ORIGIN"

for relay in "$@"; do
  calls=$(readelf --dyn-syms -W "$relay" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" { print $8 }' | grep -c '^ZOVRELAY_' || true)
  [ "$calls" -eq 13 ] || fail "$relay exports $calls ZOVRELAY_ calls"
done
echo "1 passed, 0 failed"
