#!/bin/sh
# The local relay's folders are layers, each of which may include only itself and those below it:
#   api > run > repository > archive > transfer > catalog > base
# Prints every include that goes the wrong way (or names no folder) and fails when there is one.
relay=${1:-$(dirname "$0")/../localrelay}
rank() {
  case $1 in
    base) echo 0 ;; catalog) echo 1 ;; transfer) echo 2 ;; archive) echo 3 ;;
    repository) echo 4 ;; run) echo 5 ;; api) echo 6 ;; *) echo -1 ;;
  esac
}
bad=0
for file in "$relay"/*/*.h "$relay"/*/*.cpp; do
  layer=$(basename "$(dirname "$file")")
  own=$(rank "$layer")
  [ "$own" -ge 0 ] || { echo "$file: $layer/ is no layer"; bad=1; continue; }
  for included in $(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file"); do
    [ "$included" = zovrelay.h ] && continue
    target=${included%%/*}
    theirs=$(rank "$target")
    if [ "$included" = "$target" ] || [ "$theirs" -lt 0 ]; then
      echo "$file: includes \"$included\", which names no layer"; bad=1
    elif [ "$theirs" -gt "$own" ]; then
      echo "$file: $layer/ includes $included from the layer above it"; bad=1
    fi
  done
done
[ "$bad" = 0 ] && echo "layers: every include goes downward"
exit $bad
