#!/usr/bin/env bash
# lidar-sim end to end: usage errors, the "listening on" line, one request over TCP, and the
# request counters printed after SIGINT. Argument: the lidar-sim executable.
set -euo pipefail
sim=$1
dir=$(mktemp -d)
pid=
cleanup() {
    if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; fi
    rm -rf "$dir"
}
trap cleanup EXIT

for bad in "" "--model" "--model Smoke --port 70000" "--model Smoke --fault 0x07:sometimes" \
           "--model Smoke --bogus" "--model Smoke --fault-state 1:xyz" "--model Smoke --serial=1" \
           "--model Smoke --partition C" "--model Smoke --chaos -1" "--model Smoke --serial --chaos 1" \
           "--model Smoke --count 0" "--model Smoke --count 999" "--model Smoke --count 2 --serial" \
           "--model Smoke --count=x" "--model Smoke --port 65535 --count 2"; do
    status=0
    # shellcheck disable=SC2086
    "$sim" $bad >/dev/null 2>"$dir/usage" || status=$?
    if [ "$status" != 2 ] || ! grep -q usage "$dir/usage"; then
        echo "expected a usage error (status 2) for: $bad, got $status"
        exit 1
    fi
done

version=$("$sim" --version)
if ! [[ "$version" =~ ^lidar-sim\ [0-9]+\.[0-9]+\.[0-9]+$ ]]; then
    echo "expected 'lidar-sim X.Y.Z' from --version, got: $version"
    exit 1
fi

mkdir -p "$dir/varID/Smoke"
printf '%s\n%s\n' \
    'module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,default_val' \
    'M,P,v,V,uint16,0x40,,0,0,2,513' >"$dir/varID/Smoke/Smoke.csv"
# The last block that fits below port 65536 is not a usage error: without its model's catalogue
# the start fails instead (status 1).
status=0
"$sim" --model Absent --config-dir "$dir" --port 65534 --count 2 >/dev/null 2>"$dir/err" || status=$?
if [ "$status" != 1 ] || ! grep -q 'no catalogue' "$dir/err"; then
    echo "expected --port 65534 --count 2 to pass the usage checks, got $status:"; cat "$dir/err"
    exit 1
fi
# Chaos seed 1 leaves the first two requests alone; 0x41's own fault wins anyway.
"$sim" --model Smoke --config-dir "$dir" --port 0 --fault 0x41:status=4 --chaos 1 \
    >"$dir/out" 2>"$dir/err" &
pid=$!
for _ in $(seq 1 100); do
    grep -q '^listening on ' "$dir/out" && break
    sleep 0.1
done
line=$(head -n 1 "$dir/out")
if [[ ! $line =~ ^listening\ on\ 127\.0\.0\.1:([0-9]+)$ ]]; then
    echo "unexpected first line: '$line'"; cat "$dir/err"; exit 1
fi
port=${BASH_REMATCH[1]}

exec 3<>"/dev/tcp/127.0.0.1/$port"
printf '\x56\x52\x40\x00\x00\x00\x00\x00' >&3
reply=$(head -c 10 <&3 | od -An -tx1 | tr -d ' \n')
printf '\x56\x52\x41\x00\x00\x00\x00\x00' >&3
faulted=$(head -c 8 <&3 | od -An -tx1 | tr -d ' \n')
exec 3>&-
[ "$reply" = 56524000000000020201 ] || { echo "unexpected reply to 0x40: $reply"; exit 1; }
[ "$faulted" = 5652410400000000 ] || { echo "unexpected reply to 0x41: $faulted"; exit 1; }

kill -INT "$pid"
status=0
wait "$pid" || status=$?
pid=
[ "$status" = 0 ] || { echo "lidar-sim exited with $status"; exit 1; }
if ! grep -qx 'requests: 0x40=1 0x41=1' "$dir/out"; then
    echo "no request counters in:"; cat "$dir/out"; exit 1
fi
if ! grep -qx 'chaos: slow=0 busy=0 cut=0 drop=0' "$dir/out"; then
    echo "no chaos tally in:"; cat "$dir/out"; exit 1
fi
echo "lidar-sim smoke test passed"
