#!/usr/bin/env bash
# fuzz.sh [SECONDS] [TARGET...]: builds the libFuzzer targets with clang (build-fuzz/) and runs each
# for SECONDS (default 30) from its seed corpus and the shipped files. Exits non-zero on the first
# crash, leak, time-out or sanitizer report; the reproducer is left in build-fuzz/findings/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
shift || true
targets=("$@")
# Without names: every target in fuzz/ (<name>_fuzz.cpp), so a new one joins the run by itself.
if [ ${#targets[@]} -eq 0 ]; then
    for source in "$root"/fuzz/*_fuzz.cpp; do
        targets+=("$(basename "$source" _fuzz.cpp)")
    done
fi

CC=clang CXX=clang++ cmake -S "$root" -B "$root/build-fuzz" -DLIDAR_BUILD_FUZZ=ON \
    -DLIDAR_BUILD_TESTS=OFF -DLIDAR_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build-fuzz" -j "$(nproc 2>/dev/null || echo 2)" \
    --target $(printf 'fuzz_%s ' "${targets[@]}")

work=$(mktemp -d /tmp/lidar-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT
findings="$root/build-fuzz/findings"
mkdir -p "$findings"

# The grown corpus lives in $work; the committed seeds and the shipped files are read-only extras.
seeds_for() {
    local target=$1 into=$2
    case $target in
        catalogue)
            cp "$root"/Config/varID/*/*.csv "$into"/ ;;
        feature_access)
            # The first byte picks the model or profile name the lookup asks for.
            for f in "$root"/Config/feature_config.csv "$root"/Config/auth_config.csv; do
                for pick in 0 1 2 3 4; do
                    { printf "\\x0$pick"; cat "$f"; } >"$into/$(basename "$f").$pick"
                done
            done ;;
        *)
            cp "$root/fuzz/corpus/$target"/* "$into"/ ;;
    esac
}

for target in "${targets[@]}"; do
    corpus="$work/$target"
    mkdir -p "$corpus"
    seeds_for "$target" "$corpus"
    echo "== fuzz_$target for ${seconds}s"
    (cd "$root" && ASAN_OPTIONS=detect_leaks=1 "$root/build-fuzz/fuzz/fuzz_$target" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$findings/$target-" "$corpus" 2>"$work/$target.log") || {
        tail -40 "$work/$target.log" >&2
        echo "fuzz_$target failed; reproducer in $findings" >&2
        exit 1
    }
    grep -E "DONE|stat::number_of_executed_units|stat::peak_rss_mb" "$work/$target.log"
done
