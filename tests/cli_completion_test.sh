#!/usr/bin/env bash
# The Tab completion of lidarutil (cli/lidarutil.bash), called as bash calls it, against the
# built lidarutil run from the source tree (its catalogues).
# usage: cli_completion_test.sh COMPLETION_SCRIPT LIDARUTIL SOURCE_DIR
set -uo pipefail
script=$1
lidarutil=$2
cd "$3" || exit 2
PATH="$(dirname "$lidarutil"):$PATH"
export PATH
failures=0

# complete WORD...: the completions of the last word (bash's raw words: quotes and backslashes
# kept), one a line.
complete_words() {
    bash -c '
        source /usr/share/bash-completion/bash_completion
        source "$0"
        COMP_WORDS=("$@")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        # The line as typed: bash splits "--model=W" into three words around the "=".
        COMP_LINE=${COMP_WORDS[0]}
        for ((i = 1; i < ${#COMP_WORDS[@]}; i++)); do
            [[ ${COMP_WORDS[i]} == = || ${COMP_WORDS[i - 1]} == = ]] || COMP_LINE+=" "
            COMP_LINE+=${COMP_WORDS[i]}
        done
        COMP_POINT=${#COMP_LINE}
        function=$(complete -p lidarutil | sed -n "s/.*-F \([^ ]*\) .*/\1/p")
        "$function" lidarutil "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        printf "%s\n" "${COMPREPLY[@]}"
    ' "$script" "$@" | sort
}

# expect "WANTED (one a line, any order)" WORD...
expect() {
    local wanted got
    wanted=$(printf '%s\n' "$1" | sed '/^$/d' | sort)
    shift
    got=$(complete_words "$@" | sed '/^$/d')
    if [ "$got" != "$wanted" ]; then
        echo "FAIL: $* ->"
        diff <(echo "$wanted") <(echo "$got") | sed 's/^/    /'
        failures=$((failures + 1))
    fi
}

lines() { printf '%s\n' "$@"; }

# Commands and groups.
expect "$(lines models monitor)" lidarutil mo
expect "$(lines heron)" lidarutil --model Heron-VRC he
expect "$(lines versions imu restart upgrade)" lidarutil heron ""
expect "$(lines pack)" lidarutil ota pa
expect "$(lines net net-config)" lidarutil wren ne
expect "$(lines on off)" lidarutil --model Wren wren standby ""
expect "$(lines strongest)" lidarutil wren return-mode st
# A group's command is not offered again after it.
expect "" lidarutil wren standby on ""

# Options: the program's and the command's being typed.
expect "$(lines --record)" lidarutil monitor --rec
expect "$(lines --variable)" lidarutil upgrade --va
expect "$(lines export)" lidarutil exp
expect "$(lines --dry-run)" lidarutil apply --dr
expect "$(lines --include-network)" lidarutil export --inc
expect "$(lines Operation)" lidarutil export Network Ope
expect "$(lines --variant)" lidarutil monitor --va
expect "$(lines --verbose --version)" lidarutil info --ver
expect "$(lines --tmb-fpga --tmb-param --token)" lidarutil ota pack --t
expect "$(lines --vlan)" lidarutil wren net --vl
expect "" lidarutil wren standby --vl
expect "$(lines --count)" lidarutil watch --cou
# A command's options after its arguments.
expect "$(lines --count)" lidarutil watch Status --cou
expect "$(lines --variable)" lidarutil upgrade firmware.bin --va

# Model names after --model, from `lidarutil models`, with and without "=".
expect "$(cd Config/varID && ls)" lidarutil --model ""
expect "$(lines Wren Wren-VRC)" lidarutil --model W
expect "$(lines Wren Wren-VRC)" lidarutil --model = W
expect "$(lines Egret)" lidarutil info --model E
# A value of an option is not a command: after --host's value come the commands.
expect "$(lines info)" lidarutil --host 10.0.0.2 inf
# Fleet mode: its options, a file after --hosts and --report, nothing after -j, and the commands
# after their values.
expect "$(lines --host --hosts)" lidarutil --hos
expect "$(lines --jobs)" lidarutil --hosts README.md info --jo
expect "$(lines README.md)" lidarutil --hosts READ
expect "$(lines README.md)" lidarutil --hosts bench.txt --report READ
expect "" lidarutil --hosts bench.txt -j ""
expect "$(lines info)" lidarutil --hosts bench.txt -j 4 --report r.jsonl inf

# Module names after read and watch, of the model typed on the line, quoted as typed.
modules_of() { "$lidarutil" --model "$1" show | sed -n 's/^== \(.*\) ==$/\1/p'; }
expect "$(modules_of Egret)" lidarutil read ""
expect "$(modules_of Wren)" lidarutil --model Wren read ""
expect "$(modules_of Wren)" lidarutil --model = Wren read ""
expect "$(modules_of Heron-VRC)" lidarutil read --model Heron-VRC ""
expect "$(modules_of Wren)" lidarutil --model '"Wren"' watch ""
expect "$(lines "Device Info")" lidarutil read 'Device\ '
expect "$(lines "Field of View")" lidarutil read "'Field of"
expect "$(lines "Field of View")" lidarutil read '"Fi'
expect "$(lines "Status" "System")" lidarutil read S
# File names where a command takes a file, and only there.
expect "$(lines README.md)" lidarutil upgrade READ
expect "$(lines README.md)" lidarutil ota inspect READ
expect "" lidarutil info READ

# One module only.
expect "" lidarutil read Status ""

# The models must differ for the model checks above to mean anything.
[ "$(modules_of Egret)" != "$(modules_of Wren)" ] ||
    { echo "FAIL: Egret's and Wren's modules are alike"; failures=$((failures + 1)); }

if [ $failures -ne 0 ]; then
    echo "$failures completion checks failed"
    exit 1
fi
echo "every completion check passed"
