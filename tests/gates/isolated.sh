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
  # In a chroot "/" is no mount point and cannot be made private: the mounts are checked inside.
  for propagation in private unchanged; do
    if why=$(unshare $ns --propagation $propagation true 2>&1); then
      export UPDATE_ISOLATED=1
      exec unshare $ns --propagation $propagation sh "$0" "$@"
    fi
  done
  echo "isolated.sh: skipped: no private mount namespace can be made here (unshare $ns: $why)"
  exit $skip
fi

unset UPDATE_ISOLATED
# Nothing mounted here may reach another namespace: where "/" cannot be made private, no mount may
# be shared with one either.
if ! mount --make-rprivate / 2>/dev/null && ! { [ -r /proc/self/mountinfo ] && ! grep -q ' shared:' /proc/self/mountinfo; }; then
  echo "isolated.sh: skipped: the mounts here are shared with other namespaces"
  exit $skip
fi
if ! why=$(mount -t tmpfs -o mode=1777 tmpfs /dev/shm 2>&1); then
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
