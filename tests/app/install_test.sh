#!/usr/bin/env bash
# make install's rules: the three programs, the menu entry and the icon land
# under the prefix given.
set -euo pipefail
build="$1"
prefix="$(mktemp -d /tmp/coilscope-install.XXXXXX)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" > /dev/null
for f in bin/coilscope bin/coilscope-cli bin/coilscope-sim share/applications/coilscope.desktop \
         share/icons/hicolor/scalable/apps/coilscope.svg; do
  [ -e "$prefix/$f" ] || { echo "FAILED: $f not installed"; exit 1; }
done
grep -q '^Exec=coilscope$' "$prefix/share/applications/coilscope.desktop"
grep -q '^Icon=coilscope$' "$prefix/share/applications/coilscope.desktop"
"$prefix/bin/coilscope-cli" decode 03 FF FC > /dev/null
echo "installed under $prefix: programs, menu entry, icon"
