#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs lidarutil against the embedded
# simulator. Extra arguments go to lidarutil.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
"$root/scripts/build.sh" build >/dev/null
cd "$root"
if [ $# -gt 0 ]; then
    exec "$root/build/cli/lidarutil" "$@"
fi
"$root/build/cli/lidarutil" models
"$root/build/cli/lidarutil" --model Egret show
