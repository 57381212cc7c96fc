#!/usr/bin/env bash
# The demonstration: the device emulator on pseudo-terminals, and the capture
# connected to it. With a display (DISPLAY set) the desktop application starts
# and connects by itself (COILSCOPE_DEMO=1); closing its window ends the demo.
# Without one the live session is shown in the terminal for twenty seconds.
set -euo pipefail
bin="${1:-build-release}"
seconds="${DEMO_SECONDS:-20}"
dir="$(mktemp -d /tmp/coilscope-demo.XXXXXX)"
"$bin/sim/coilscope-sim" --dir "$dir" --noise > "$dir/ports.txt" &
sim=$!
cleanup() {
  kill "$sim" 2>/dev/null || true
  wait "$sim" 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
# Wait until the emulator has made its three ports.
for _ in $(seq 1 100); do
  [ "$(ls "$dir" 2>/dev/null | grep -c ttyACM || true)" -ge 3 ] && break
  sleep 0.05
done
echo "coilscope-sim is running in $dir:"
cat "$dir/ports.txt"
echo
if [ -n "${DISPLAY:-}" ] && [ -x "$bin/app/coilscope" ]; then
  echo "coilscope connects to it by itself; close its window to end the demo."
  COILSCOPE_PORTS="$dir/ttyACM%d" COILSCOPE_DEMO=1 "$bin/app/coilscope"
else
  COILSCOPE_PORTS="$dir/ttyACM%d" "$bin/app/coilscope-cli" capture --seconds "$seconds"
fi
