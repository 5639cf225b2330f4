#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs a short session of lidarutil against
# the embedded simulated lidar. With arguments, runs lidarutil with them instead.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
echo "building (first time: a few minutes) ..." >&2
"$root/scripts/build.sh" build >/dev/null
cd "$root"
lidarutil="$root/build/cli/lidarutil"
if [ $# -gt 0 ]; then
    exec "$lidarutil" "$@"
fi

step() { printf '\n$ lidarutil %s\n' "$*"; "$lidarutil" "$@" 2>&1; }
step models
step --model Egret show
step --model Egret read Operation
# Two values of one set command (0x31) and a network value (0x21, applied last; the lidar then
# drops the connection and lidarutil connects again to read back).
step --model Egret set "Spin Rate=1200" "Return Mode=Dual" "Gateway=192.168.1.254"
# A raw command (device information) and a device log saved in a temporary folder.
step --model Egret send 0x07
logs=$(mktemp -d)
step --model Egret log "Device Log" --dir "$logs"
rm -rf "$logs"
