#!/usr/bin/env bash
# package.sh: builds the Debian package lidar-utilities_VERSION_ARCH.deb into the repository root,
# from a clean Release build in build-package/ made with Debian's hardening flags (no tests, no
# benchmarks; ccache when present). Prints the package's path.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir="$root/build-package"
jobs=$(nproc 2>/dev/null || echo 2)
cd "$root"

# Debian's build flags, as a package built by the distribution gets them. CMake reads CXXFLAGS
# and LDFLAGS only: the preprocessor's flags (_FORTIFY_SOURCE) join the compiler's.
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
export CXXFLAGS="$CPPFLAGS $CXXFLAGS"
# The date on the manual pages: the last commit's, so that a build of one commit is repeatable.
SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH

launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

rm -rf "$dir"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DLIDAR_BUILD_TESTS=OFF \
    -DLIDAR_BUILD_BENCH=OFF -DLIDAR_BUILD_MANPAGES=ON "${launcher[@]}" >/dev/null
cmake --build "$dir" -j "$jobs"
(cd "$dir" && cpack -G DEB >/dev/null)

rm -f "$root"/lidar-utilities_*.deb
mv "$dir"/lidar-utilities_*.deb "$root"/
ls "$root"/lidar-utilities_*.deb
