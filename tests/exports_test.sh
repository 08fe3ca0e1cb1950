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

# Each relay exports the thirteen calls; of ZOVRELAY_ names the local relay adds only its own
# ZOVRELAY_Local calls.
thirteen="ZOVRELAY_CreateContext ZOVRELAY_DestroyContext ZOVRELAY_DestroyData ZOVRELAY_Duplicate
ZOVRELAY_ExportComponent ZOVRELAY_GetInformation ZOVRELAY_GetStatusMessage ZOVRELAY_GetVersion
ZOVRELAY_SetOption ZOVRELAY_SetStringOption ZOVRELAY_Shutdown ZOVRELAY_Startup ZOVRELAY_SubscribeEvent"
for relay in "$@"; do
  symbols=$(readelf --dyn-syms -W "$relay" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $5 != "LOCAL" && $8 != "" { print $8 }' | sort -u)
  for call in $thirteen; do echo "$symbols" | grep -qx "$call" || fail "$relay lacks $call"; done
  other=$(echo "$symbols" | grep '^ZOVRELAY_' | grep -v '^ZOVRELAY_Local' | grep -vxF "$(echo $thirteen | tr ' ' '\n')" || true)
  [ -z "$other" ] || fail "$relay exports $other"
done
echo "1 passed, 0 failed"
