#!/usr/bin/env bash
# The test suite: installs what is missing, then builds and runs every test three times:
# a normal build, AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer; then each
# libFuzzer target for 30 seconds from its corpus; then the soak, a manager against a misbehaving
# simulator for 3 minutes (LIDAR_SUITES picks a subset; LIDAR_SOAK_SECONDS changes the soak's
# length).
# Suites, in the default order "normal install asan tsan fuzz soak":
#   normal   the tests of a normal build (build/)
#   install  the Debian package built, installed into a staging folder and used from an empty
#            folder with a fresh home; its contents and lintian (scripts/install_test.sh)
#   asan     the tests under AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
#   tsan     the tests under ThreadSanitizer (build-tsan/)
#   fuzz     every libFuzzer target for 30 s
#   soak     the manager against a misbehaving simulator
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

# The soak runs from the normal build, building it first when no suite before it did.
run_soak() {
    local seconds=${LIDAR_SOAK_SECONDS:-180}
    echo "== soak ($seconds s, build)"
    "$root/scripts/build.sh" build
    "$root/build/bench/soak_bench" --seconds "$seconds"
}

suites=${LIDAR_SUITES:-"normal install asan tsan fuzz soak"}
for s in $suites; do
    case $s in
        normal) run_suite build ;;
        install) echo "== install (the Debian package)"; "$root/scripts/install_test.sh" ;;
        asan) run_suite build-asan "address,undefined" ;;
        tsan) run_suite build-tsan "thread" ;;
        fuzz) echo "== fuzz (30 s per target)"; "$root/scripts/fuzz.sh" 30 ;;
        soak) run_soak ;;
        *) echo "unknown suite $s" >&2; exit 2 ;;
    esac
done
