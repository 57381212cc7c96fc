#!/usr/bin/env bash
# The desktop application end to end in a real X server: Xvfb, the device
# emulator and coilscope with COILSCOPE_DEMO=1 (it connects by itself). After
# 40 s, checked from outside the process: the session folder holds a .sid and
# a .log and the power monitor's .Percent.txt (one line a second in its
# format, the monitor hidden), and the .sid played back tells the power
# phases of the cycle; a screenshot of the whole screen is kept as the test's
# artifact.
# The ASK chain reads a packet live or not depending on where its 5 ms passes
# cut it, so a phase told by one packet of the cycle (the Configuration, the
# Received Power that opens calibration) is required when that packet is in
# the session; pings, negotiation and power transfer always are.
#   desktop_e2e.sh COILSCOPE COILSCOPE_SIM COILSCOPE_CLI ARTIFACT_DIR
set -euo pipefail
app="$1"; sim="$2"; cli="$3"; artifacts="$4"
seconds="${E2E_SECONDS:-40}"
work="$(mktemp -d /tmp/coilscope-e2e.XXXXXX)"
mkdir -p "$artifacts" "$work/data" "$work/config"
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
cleanup() { rm -rf "$work"; }
trap cleanup EXIT

cat > "$work/run.sh" <<SCRIPT
#!/usr/bin/env bash
"$sim" --dir "$work/ports" --seed 9 > "$work/sim.txt" 2>&1 &
simpid=\$!
for _ in \$(seq 1 100); do grep -q '^fsk ' "$work/sim.txt" 2>/dev/null && break; sleep 0.05; done
COILSCOPE_PORTS="$work/ports/ttyACM%d" COILSCOPE_DEMO=1 "$app" > "$work/app.txt" 2>&1 &
apppid=\$!
sleep $seconds
import -window root "$artifacts/desktop-e2e.png" || xwd -root -silent | convert xwd:- "$artifacts/desktop-e2e.png"
kill -TERM \$apppid; wait \$apppid || true
kill -TERM \$simpid; wait \$simpid || true
SCRIPT
chmod +x "$work/run.sh"
xvfb-run -a -s "-screen 0 1600x900x24" "$work/run.sh"

fail() { echo "FAILED: $*"; echo "--- app:"; cat "$work/app.txt" || true; exit 1; }
sid="$(find "$work/data/Coilscope" -name 'EventWindow_*.sid' | head -n 1)"
log="$(find "$work/data/Coilscope" -name 'LogWindow_*.log' | head -n 1)"
[ -n "$sid" ] || fail "no session file under $work/data/Coilscope"
[ -n "$log" ] || fail "no session log"
[ "$(wc -l < "$log")" -gt 50 ] || fail "the session log has $(wc -l < "$log") lines"
"$cli" replay "$sid" > "$work/replay.txt" 2>/dev/null || fail "the session file does not replay"
need=("Power Ping Phase" "Negotiation Phase")
grep -q 'Configuration Rx Configuration' "$work/replay.txt" && need+=("Power Identify&Configure Phase")
grep -q 'ReceivedPower Mode 1' "$work/replay.txt" && need+=("Calibration Phase")
grep -q 'ReceivedPower Mode 2' "$work/replay.txt" && need+=("Power Transfer Phase")
[ "${#need[@]}" -ge 4 ] || fail "the session file misses the packets of two phases: ${need[*]}"
for phase in "${need[@]}"; do
  grep -q -- "-- $phase --" "$work/replay.txt" || fail "no $phase in the session file"
done
# The power monitor stayed hidden and logged one line a second all the same.
percent="$(find "$work/data/Coilscope" -name '*.Percent.txt' | head -n 1)"
[ -n "$percent" ] || fail "no power log (.Percent.txt) in the session folder"
plines="$(wc -l < "$percent")"
[ "$plines" -ge $((seconds / 2)) ] || fail "the power log has $plines lines after $seconds s"
grep -qvP '^\d+\.\d{3} -?\d+ -?\d+\.\d{2}% -?\d+\.\d{2}W\r$' "$percent" && fail "a power log line out of format: $(grep -vP '^\d+\.\d{3} -?\d+ -?\d+\.\d{2}% -?\d+\.\d{2}W\r$' "$percent" | head -n 1)"
[ -s "$artifacts/desktop-e2e.png" ] || fail "no screenshot"
echo "session file $(basename "$sid"): $(grep -c '^...\[' "$work/replay.txt") events; phases: $(grep -- '^-- ' "$work/replay.txt" | sort -u | tr '\n' ' ')"
echo "power log $(basename "$percent"): $plines lines"
echo "screenshot: $artifacts/desktop-e2e.png"
