#!/bin/sh
# `make install`'s rules into a DESTDIR: the module, the relay beside it, the command and its
# manual page; the installed command finds the module from where it lies, without LUA_CPATH.
#   sh tests/command/install_test.sh BUILD
set -eu
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
DESTDIR=$tmp cmake --install "$1" --prefix /usr/local >/dev/null
for file in bin/update-mirror share/lua/5.2/update_mirror/actions.lua lib/lua/5.2/update.so lib/lua/5.2/libzovrelay.so share/man/man1/update-mirror.1; do
  [ -s "$tmp/usr/local/$file" ] || { echo "not installed: $file"; exit 1; }
done
env -u LUA_CPATH "$tmp/usr/local/bin/update-mirror" --help | grep -q -- '--dry-run'
env -u LUA_CPATH "$tmp/usr/local/bin/update-mirror" --version | grep -q '^update-mirror .*, relay library '
grep -q '^\.SH EXIT STATUS' "$tmp/usr/local/share/man/man1/update-mirror.1"
# The installed examples name the installed command, and the unit passes systemd's own check.
grep -q '^ExecStart=/usr/local/bin/update-mirror ' "$tmp/usr/local/share/doc/update/examples/update-mirror.service"
if command -v systemd-analyze >/dev/null 2>&1; then
  mkdir -p "$tmp/unit" && cp "$tmp/usr/local/share/doc/update/examples/update-mirror.service" "$tmp/unit/"
  sed -i "s|^ExecStart=/usr/local/bin/|ExecStart=$tmp/usr/local/bin/|" "$tmp/unit/update-mirror.service"
  SYSTEMD_LOG_LEVEL=err systemd-analyze verify --man=no "$tmp/unit/update-mirror.service"
fi
