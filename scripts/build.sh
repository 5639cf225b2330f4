#!/usr/bin/env bash
# build.sh DIR [SANITIZERS]: configures and builds the tree into DIR.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
sanitize=${2:-}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$root/$dir" -DLIDAR_SANITIZE="$sanitize" >/dev/null
cmake --build "$root/$dir" -j "$jobs"
