#!/bin/sh
# The release rock, made offline from the committed tree (`make rock`): `git archive` writes the
# source archive, the rockspec is linted and packed with it into DIST/update-VERSION-1.src.rock.
# With --check, that rock is then built by `luarocks build` inside an empty temporary directory
# into a tree of its own, and the installed command must answer --help and --version.
#
#   sh tools/rock.sh [--check] DIST
set -eu
check=
[ "${1:-}" = --check ] && { check=1; shift; }
luarocks() { command luarocks --lua-version 5.2 "$@"; }
if [ -n "$check" ]; then
  # A check writes nothing outside its temporary directory, not even luarocks' cache in $HOME.
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  luarocks() { HOME=$work command luarocks --lua-version 5.2 "$@"; }
fi
[ $# -eq 1 ] || { echo "usage: sh tools/rock.sh [--check] DIST" >&2; exit 2; }
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
dist=$(cd "$1" && pwd)
rockspec=$(cd "$top" && ls update-*-1.rockspec)
version=${rockspec#update-}
version=${version%-1.rockspec}
archive=update-$version.tar.gz

git -C "$top" rev-parse -q --verify HEAD >/dev/null 2>&1 || { echo "rock: $top is not a git checkout" >&2; exit 77; }
git -C "$top" archive --format=tar.gz --prefix="update-$version/" -o "$dist/$archive" HEAD
# The packed rockspec names the archive where it lies; the rock carries the archive with it.
# A check builds offline, where lua-cjson comes from Debian rather than from a rocks server: its
# rockspec leaves that dependency out (the released one keeps it).
sed -e "s|url = \"$archive\"|url = \"file://$dist/$archive\"|" ${check:+-e '/"lua-cjson/d'} "$top/$rockspec" >"$dist/$rockspec"
cd "$dist"
luarocks lint "$rockspec"
rm -f "update-$version-1.src.rock"
luarocks pack "$rockspec" >/dev/null
echo "rock: $dist/update-$version-1.src.rock"
[ -n "$check" ] || exit 0

mkdir "$work/empty"
cp "update-$version-1.src.rock" "$work/empty/"
cd "$work/empty"
rm "$dist/$archive"  # the build must take the archive from inside the rock
luarocks --tree "$work/tree" build "update-$version-1.src.rock" >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; exit 1; }
"$work/tree/bin/update-mirror" --help | grep -q -- '--dry-run' || { echo "rock: --help lacks --dry-run" >&2; exit 1; }
"$work/tree/bin/update-mirror" --version
ls "$work/tree/lib/lua/5.2/update.so" "$work/tree/lib/lua/5.2/libzovrelay.so" >/dev/null
echo "rock: built and installed from the packed rock alone"
