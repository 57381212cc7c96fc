#!/usr/bin/env bash
# The interface thread's share of one core while coilscope shows a live
# capture at real speed with every view shown, over 60 s in Xvfb (after 10 s
# to settle), and the median and worst refresh (TimeOut_slot through the
# dock's redraw) over the run.
#   desktop_cpu.sh BUILD_DIR [SECONDS]
set -euo pipefail
build="$1"; seconds="${2:-60}"
work="$(mktemp -d /tmp/coilscope-cpu.XXXXXX)"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/data" "$work/config"
export XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config"
cat > "$work/run.sh" <<SCRIPT
#!/usr/bin/env bash
"$build/sim/coilscope-sim" --dir "$work/ports" --seed 9 > "$work/sim.txt" 2>&1 &
sim=\$!
for _ in \$(seq 1 100); do grep -q '^fsk ' "$work/sim.txt" 2>/dev/null && break; sleep 0.05; done
COILSCOPE_PORTS="$work/ports/ttyACM%d" COILSCOPE_DEMO=1 COILSCOPE_REFRESH_STATS="$work/stats.txt" \\
  "$build/app/coilscope" > "$work/app.txt" 2>&1 &
app=\$!
sleep 10
tick() { awk '{print \$14 + \$15}' /proc/\$app/task/\$app/stat; }
all() { awk '{print \$14 + \$15}' /proc/\$app/stat; }
t0=\$(tick); a0=\$(all); s0=\$(date +%s.%N)
sleep $seconds
t1=\$(tick); a1=\$(all); s1=\$(date +%s.%N)
hz=\$(getconf CLK_TCK)
awk -v t=\$((t1 - t0)) -v a=\$((a1 - a0)) -v hz=\$hz -v s0=\$s0 -v s1=\$s1 'BEGIN {
  w = s1 - s0;
  printf "interface thread: %.2f s CPU over %.1f s = %.2f %% of one core; whole process %.2f %%\\n", t / hz, w, 100 * t / hz / w, 100 * a / hz / w }'
kill -TERM \$app; wait \$app || true
kill -TERM \$sim; wait \$sim || true
SCRIPT
chmod +x "$work/run.sh"
xvfb-run -a -s "-screen 0 1600x900x24" "$work/run.sh"
cat "$work/stats.txt"
