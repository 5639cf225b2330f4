#!/usr/bin/env bash
# The test suite: installs what is missing, then builds and runs every test three times:
# a normal build, AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer; then each
# libFuzzer target for 30 seconds from its corpus (LIDAR_SUITES picks a subset).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup.sh"
jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
    local dir=$1 sanitize=${2:-}
    echo "== $dir (${sanitize:-no sanitizer})"
    "$root/scripts/build.sh" "$dir" "$sanitize"
    (cd "$root/$dir" && ctest --output-on-failure -j "$jobs")
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/tests/tsan.supp"

suites=${LIDAR_SUITES:-"normal asan tsan fuzz"}
for s in $suites; do
    case $s in
        normal) run_suite build ;;
        asan) run_suite build-asan "address,undefined" ;;
        tsan) run_suite build-tsan "thread" ;;
        fuzz) echo "== fuzz (30 s per target)"; "$root/scripts/fuzz.sh" 30 ;;
        *) echo "unknown suite $s" >&2; exit 2 ;;
    esac
done
