#!/usr/bin/env bash
# Refreshes docs/screenshots/: every view of the window at 1280x800 with a simulated lidar of
# each kind (Egret over the network, Wren over its serial lines, Heron-VRC), under Xvfb with
# Mesa's software OpenGL when there is no display.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" build >/dev/null
cd "$root"
out="$root/docs/screenshots"
rm -f "$out"/*.png
run=()
if [ -z "${DISPLAY:-}" ]; then run=(xvfb-run -a -s "-screen 0 1600x1000x24"); fi
for model in Egret Wren Heron-VRC; do
    LIBGL_ALWAYS_SOFTWARE=1 "${run[@]}" "$root/build/desk/lidar-desk" --simulate "$model" \
        --screenshots "$out" >/dev/null
done
ls "$out"
