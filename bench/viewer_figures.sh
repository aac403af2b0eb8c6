#!/usr/bin/env bash
# The viewer's figures on a virtual display at 1280 x 720 (map area), REPS times each:
#   frame times (p50, p95 of drawing the map) over a scripted 10 s pan and zoom with tags and
#   events on, after a warm-up pass that caches the tiles; CPU used over 10 s while idle; memory
#   and tile cache after 10,000 scripted moves across Thailand.
#   bench/viewer_figures.sh VIEWER [REPS]
set -uo pipefail
viewer=$1
reps=${2:-5}
work=$(mktemp -d)
xvfb_pid=0
cleanup() {
    if ((xvfb_pid > 0)); then kill "$xvfb_pid" 2>/dev/null; wait "$xvfb_pid" 2>/dev/null; fi
    rm -rf "$work"
}
trap cleanup EXIT
Xvfb -displayfd 3 -screen 0 1700x1000x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
xvfb_pid=$!
for _ in $(seq 100); do [[ -s $work/display ]] && break; sleep 0.05; done
export DISPLAY=:$(head -1 "$work/display") GDK_BACKEND=x11 GSK_RENDERER=cairo NO_AT_BRIDGE=1

for i in $(seq "$reps"); do
    SORVAN_HOME=$work/home$i SORVAN_VIEWER_SCRIPT=pan-zoom "$viewer" 2>/dev/null | sed "s/^/pan-zoom $i: /"
done
for i in $(seq "$reps"); do
    SORVAN_HOME=$work/idle$i SORVAN_VIEWER_STATE=$work/idle$i.json "$viewer" >/dev/null 2>&1 &
    pid=$!
    sleep 8  # start-up and the first tiles
    ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
    a=$(ticks); sleep 10; b=$(ticks)
    echo "idle $i: cpu $(awk -v a="$a" -v b="$b" -v hz="$(getconf CLK_TCK)" 'BEGIN{printf "%.2f%%", (b-a)/hz/10*100}') over 10 s"
    kill "$pid"; wait "$pid" 2>/dev/null
done
for i in $(seq "$reps"); do
    SORVAN_HOME=$work/th$i SORVAN_VIEWER_SCRIPT=thailand "$viewer" 2>/dev/null | sed "s/^/thailand $i: /"
done
