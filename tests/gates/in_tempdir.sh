#!/bin/sh
# in_tempdir.sh COMMAND...: runs COMMAND inside a fresh temporary directory, removed afterwards,
# so that a test handing relative paths to the module can only touch files there.
dir=$(mktemp -d) || exit 1
cd "$dir" || exit 1
"$@"
status=$?
cd / && rm -rf "$dir"
exit $status
