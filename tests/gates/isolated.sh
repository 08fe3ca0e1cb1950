#!/bin/sh
# isolated.sh [--in-tempdir] COMMAND...: runs COMMAND with a /dev/shm of its own, a tmpfs in a private
# mount namespace, so that the machine-wide semaphore (/dev/shm/sem.zovrelay, the relay's named
# semaphore) is the test's alone: another program using the relay cannot break its assertions, and
# the test cannot remove a running mirror's file. As root `unshare --mount`, otherwise through a user
# namespace that maps the caller to root. Where no namespace can be made it says why and exits 77,
# which CTest reports as skipped.
#   --in-tempdir  runs COMMAND inside a fresh temporary directory, removed afterwards, so that a test
#                 handing relative paths to the module can only touch files there.
# In a sanitized build the sanitizer runtimes arrive as UPDATE_PRELOAD and are preloaded into
# COMMAND alone.
skip=77
if [ "${UPDATE_ISOLATED:-}" != 1 ]; then
  if [ "$(id -u)" = 0 ]; then ns=--mount; else ns="--user --map-root-user --mount"; fi
  if ! why=$(unshare $ns true 2>&1); then
    echo "isolated.sh: skipped: no private mount namespace can be made here (unshare $ns: $why)"
    exit $skip
  fi
  export UPDATE_ISOLATED=1
  exec unshare $ns sh "$0" "$@"
fi

unset UPDATE_ISOLATED
if ! why=$({ mount --make-rprivate / && mount -t tmpfs -o mode=1777 tmpfs /dev/shm; } 2>&1); then
  echo "isolated.sh: skipped: no private /dev/shm can be mounted here ($why)"
  exit $skip
fi
dir=
if [ "${1:-}" = --in-tempdir ]; then
  shift
  dir=$(mktemp -d) && cd "$dir" || exit 1
fi
if [ -n "${UPDATE_PRELOAD:-}" ]; then
  LD_PRELOAD=$UPDATE_PRELOAD "$@"
else
  "$@"
fi
status=$?
[ -z "$dir" ] || { cd / && rm -rf "$dir"; }
exit $status
