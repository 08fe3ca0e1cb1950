#!/bin/sh
# in_tempdir.sh COMMAND...: runs COMMAND inside a fresh temporary directory, removed afterwards,
# so that a test handing relative paths to the module can only touch files there. In a sanitized
# build the sanitizer runtimes arrive as UPDATE_PRELOAD and are preloaded into COMMAND alone.
dir=$(mktemp -d) || exit 1
cd "$dir" || exit 1
if [ -n "${UPDATE_PRELOAD:-}" ]; then
  LD_PRELOAD=$UPDATE_PRELOAD "$@"
else
  "$@"
fi
status=$?
cd / && rm -rf "$dir"
exit $status
