#!/usr/bin/env bash
# Builds the window and opens it on a simulated Egret (needs a display).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" build >/dev/null
cd "$root"
exec "$root/build/desk/lidar-desk" --simulate Egret "$@"
