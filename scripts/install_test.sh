#!/usr/bin/env bash
# install_test.sh: builds the Debian package (scripts/package.sh), installs the same build into a
# staging folder and uses it as a user would: a fresh home, no XDG_* variables, the staged
# programs first on PATH, run from an empty folder. Then checks the package's contents and what
# lintian says of it. Every check prints "install: ok WHAT"; the first failure ends the script
# with "install: FAIL WHAT" and what was seen.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
started=$SECONDS

tmp=$(mktemp -d)
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; fi
    rm -rf "$tmp"
}
trap cleanup EXIT

ok() { echo "install: ok $*"; }
fail() {
    echo "install: FAIL $1" >&2
    if [ $# -gt 1 ]; then printf '%s\n' "$2" | sed 's/^/    /' >&2; fi
    exit 1
}

version=$(sed -n 's/^project([^ ]* VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
[ -n "$version" ] || fail "no version in CMakeLists.txt's project()"

# --- 1. the package
"$root/scripts/package.sh" >"$tmp/package.log" 2>&1 || fail "scripts/package.sh" "$(tail -20 "$tmp/package.log")"
deb="$root/lidar-utilities_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] || fail "package.sh left no $deb" "$(ls "$root"/*.deb 2>&1)"
ok "package built: $(basename "$deb")"

# --- 2. the same build, installed into a staging folder
stage="$tmp/stage"
DESTDIR="$stage" cmake --install "$root/build-package" --prefix /usr >"$tmp/install.log" 2>&1 ||
    fail "cmake --install" "$(tail -20 "$tmp/install.log")"
ok "installed into a staging folder"

# Every file of the staged tree with its checksum: the programs must not write into their
# installation.
tree_sum() {
    (cd "$stage" && find . -type f -print0 | sort -z | xargs -0 sha256sum && find . | sort)
}
tree_sum >"$tmp/tree.before"

# --- 3. the installed programs, as a user runs them
home="$tmp/home"
elsewhere="$tmp/elsewhere"
mkdir -p "$home" "$elsewhere"
for variable in $(compgen -e | grep '^XDG_' || true); do unset "$variable"; done
export HOME="$home"
export PATH="$stage/usr/bin:$PATH"
cd "$elsewhere"

[ "$(command -v lidarutil)" = "$stage/usr/bin/lidarutil" ] ||
    fail "lidarutil on PATH is the staged one" "$(command -v lidarutil)"

models=$(lidarutil models 2>&1) || fail "lidarutil models" "$models"
for model in $(cd "$root/Config/varID" && ls); do
    grep -q "^$model " <<<"$models" || fail "lidarutil models lists $model" "$models"
done
ok "lidarutil models from an empty folder lists every installed model"

info=$(lidarutil info 2>&1) || fail "lidarutil info" "$info"
grep -q '^[^=]\+=' <<<"$info" || fail "lidarutil info prints name=value lines" "$info"
ok "lidarutil info"

sent=$(lidarutil send 0x07 2>&1) || fail "lidarutil send 0x07" "$sent"
history=$(lidarutil history 2>&1) || fail "lidarutil history" "$history"
grep -qi '0x07\|\b07\b' <<<"$history" || fail "lidarutil history shows the 0x07 just sent" "$history"
state="$home/.local/state/lidar-utilities"
log=$(find "$state" -name command_log_file.csv 2>/dev/null | head -1)
[ -n "$log" ] || fail "the command history is kept under $state" "$(find "$home" 2>&1)"
grep -qi '07' "$log" || fail "the history file holds the command" "$(cat "$log")"
ok "lidarutil send then history: the command kept in ${log#"$home"/}"

[ ! -e "$elsewhere/Config" ] || fail "nothing written into the folder the programs ran from" \
    "$(find "$elsewhere")"
ok "nothing written into the current folder"

wren=$(lidarutil --model Wren info 2>&1) || fail "lidarutil --model Wren info" "$wren"
grep -q '^[^=]\+=' <<<"$wren" || fail "lidarutil --model Wren info prints name=value lines" "$wren"
ok "lidarutil --model Wren info"

sim_version=$(lidar-sim --version 2>&1) || fail "lidar-sim --version" "$sim_version"
[ "$sim_version" = "lidar-sim $version" ] || fail "lidar-sim --version says $version" "$sim_version"
ok "lidar-sim --version"

# The simulator runs until it is stopped; it says where it listens once its catalogue is read.
lidar-sim --model Egret >"$tmp/sim.out" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
    grep -q 'listening on' "$tmp/sim.out" && break
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.1
done
grep -q 'listening on' "$tmp/sim.out" || fail "lidar-sim --model Egret found its catalogue" \
    "$(cat "$tmp/sim.out")"
kill -INT "$sim_pid"
wait "$sim_pid" || fail "lidar-sim stopped cleanly on SIGINT" "$(cat "$tmp/sim.out")"
sim_pid=""
ok "lidar-sim --model Egret from an empty folder"

for program in lidarutil lidar-sim lidar-desk; do
    page="$stage/usr/share/man/man1/$program.1.gz"
    [ -f "$page" ] || fail "manual page of $program installed"
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >"$tmp/page.txt") ||
        fail "man renders $program's page" "$warnings"
    [ -z "$warnings" ] || fail "man renders $program's page without warnings" "$warnings"
    grep -q -- "--help" "$tmp/page.txt" || fail "$program's page lists its options" "$(head "$tmp/page.txt")"
    grep -q 'lidar-utilities/Config' "$tmp/page.txt" ||
        fail "$program's page names the installed catalogues" "$(cat "$tmp/page.txt")"
done
ok "man pages render without warnings"

# Tab completion through bash's own machinery: the function `complete -p lidarutil` names,
# called as bash calls it. Prints COMPREPLY one a line.
complete_line() {
    local words=$1
    bash -c '
        source /usr/share/bash-completion/bash_completion
        source "$0"
        read -r -a COMP_WORDS <<<"$1"
        [[ $1 == *" " ]] && COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        COMP_LINE=$1
        COMP_POINT=${#COMP_LINE}
        registration=$(complete -p lidarutil) || exit 3
        function=$(sed -n "s/.*-F \([^ ]*\) .*/\1/p" <<<"$registration")
        [ -n "$function" ] || exit 4
        "$function" lidarutil "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        printf "%s\n" "${COMPREPLY[@]}"
    ' "$stage/usr/share/bash-completion/completions/lidarutil" "$words"
}
reply=$(complete_line "lidarutil mo") || fail "completion of 'lidarutil mo'" "$reply"
grep -qx models <<<"$reply" || fail "'lidarutil mo<Tab>' offers models" "$reply"
grep -qx show <<<"$reply" && fail "'lidarutil mo<Tab>' offers only words starting mo" "$reply"
reply=$(complete_line "lidarutil --model ") || fail "completion of 'lidarutil --model '" "$reply"
grep -qx Egret <<<"$reply" || fail "'lidarutil --model <Tab>' offers Egret" "$reply"
grep -qx MODEL <<<"$reply" && fail "'lidarutil --model <Tab>' leaves out the header" "$reply"
ok "bash completion: commands and model names"

validation=$(desktop-file-validate "$stage/usr/share/applications/lidar-desk.desktop" 2>&1) ||
    fail "desktop-file-validate" "$validation"
ok "desktop entry valid"

shots="$tmp/shots"
desk=$(LIBGL_ALWAYS_SOFTWARE=1 xvfb-run -a lidar-desk --simulate Egret --screenshots "$shots" 2>&1) ||
    fail "lidar-desk --screenshots from an empty folder" "$desk"
count=$(find "$shots" -name '*.png' -size +1k | wc -l)
[ "$count" -gt 0 ] || fail "lidar-desk wrote screenshots" "$desk"
ok "lidar-desk from an empty folder: $count screenshots"

tree_sum >"$tmp/tree.after"
changes=$(diff "$tmp/tree.before" "$tmp/tree.after") || fail "the installed tree is unchanged" "$changes"
ok "the installed tree is unchanged after use"
cd "$root"

# --- 4. the package's contents and lintian
contents=$(dpkg-deb -c "$deb" | awk '{ print $NF }' | grep -v '/$')
# Every file of the package must match one of these; the ones without a wildcard must be there.
allowed=(
    ./usr/bin/lidarutil ./usr/bin/lidar-sim ./usr/bin/lidar-desk
    ./usr/share/lidar-utilities/Config/README.md
    ./usr/share/lidar-utilities/Config/feature_config.csv
    ./usr/share/lidar-utilities/Config/auth_config.csv
    "./usr/share/lidar-utilities/Config/varID/*/*.csv"
    ./usr/share/doc/lidar-utilities/README.md
    ./usr/share/doc/lidar-utilities/copyright
    ./usr/share/doc/lidar-utilities/changelog.gz
    "./usr/share/doc/lidar-utilities/docs/*.md"
    "./usr/share/doc/lidar-utilities/docs/screenshots/*.png"
    ./usr/share/man/man1/lidarutil.1.gz ./usr/share/man/man1/lidar-sim.1.gz
    ./usr/share/man/man1/lidar-desk.1.gz
    ./usr/share/bash-completion/completions/lidarutil
    ./usr/share/applications/lidar-desk.desktop
    ./usr/share/icons/hicolor/scalable/apps/lidar-desk.svg
)
while read -r path; do
    matched=no
    for pattern in "${allowed[@]}"; do
        # shellcheck disable=SC2053 # the pattern is a glob
        if [[ $path == $pattern ]]; then matched=yes; break; fi
    done
    [ $matched = yes ] || fail "the package holds only expected files: $path is not one" "$contents"
done <<<"$contents"
required=()
for pattern in "${allowed[@]}"; do [[ $pattern == *'*'* ]] || required+=("$pattern"); done
for model in $(cd "$root/Config/varID" && ls); do
    required+=("./usr/share/lidar-utilities/Config/varID/$model/$model.csv")
done
for page in "$root"/docs/*.md; do required+=("./usr/share/doc/lidar-utilities/docs/${page##*/}"); done
for path in "${required[@]}"; do
    grep -qxF "$path" <<<"$contents" || fail "the package holds $path" "$contents"
done
grep -q 'command_log_file' <<<"$contents" && fail "the package holds no command history" "$contents"
staged=$(cd "$stage" && find . -type f | sort)
[ "$staged" = "$(sort <<<"$contents")" ] ||
    fail "the package holds what cmake --install installs" "$(diff <(echo "$staged") <(sort <<<"$contents"))"
ok "package contents: ${#required[@]} expected files, nothing else"

lintian_out=$(lintian "$deb" 2>&1 | grep -v 'running with root privileges' || true)
grep -q '^E:' <<<"$lintian_out" && fail "lintian reports no error" "$lintian_out"
ok "lintian: no error${lintian_out:+ ($(grep -c '^[WI]:' <<<"$lintian_out") warnings or notes)}"

echo "install: all checks passed in $((SECONDS - started)) s"
