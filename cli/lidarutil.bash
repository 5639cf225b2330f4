# Tab completion for lidarutil.                                  -*- shell-script -*-
#
# Completes the commands, the program's options (file names after --hosts and --report), the
# options of the command being typed, the commands of the heron, ota and wren groups, the model
# names after --model (from `lidarutil models`) and a module name after `read` or `watch` (from
# `lidarutil --model M show`, for the model already typed on the line). Keep the lists below in step with cli/options.cpp and
# cli/command_table.cpp.

_lidarutil_commands="models ports show info read set fov export diff apply watch send history
    upgrade log oplog monitor heron ota wren"
_lidarutil_program_options="--model --host --port --local-port --token --rs485 --uart --json
    -v --verbose -h --help --version --hosts -j --jobs --report"
# Every option, of the program or of a command, that takes the next word as its value.
_lidarutil_valued_options="--model --host --port --local-port --token --rs485 --uart --hosts
    -j --jobs --report --count
    --variable --dir --variant --record --duration --interval --vlan --bmb-app-a --bmb-app-b
    --bmb-fpga --tmb-fpga --tmb-param -o --output --exclude"

# The commands of a group (heron, ota, wren); nothing for a command that is no group.
_lidarutil_group_commands()
{
    case $1 in
        heron) echo "versions imu restart upgrade" ;;
        ota) echo "pack inspect" ;;
        wren)
            echo "standby spin-rate return-mode baud destination net net-config" \
                "destination-config safety"
            ;;
    esac
}

# The options of a command ("monitor") or of a group's command ("ota pack").
_lidarutil_command_options()
{
    case $1 in
        watch) echo "--count" ;;
        upgrade) echo "--variable" ;;
        export) echo "-o --output --include-network --exclude --all" ;;
        apply) echo "--dry-run --no-verify --restart" ;;
        log) echo "--dir" ;;
        monitor) echo "--variant --count --record --duration --interval --plot" ;;
        "ota pack") echo "--bmb-app-a --bmb-app-b --bmb-fpga --tmb-fpga --tmb-param -o --output" ;;
        "wren net") echo "--vlan" ;;
    esac
}

# The model names: the first column of `lidarutil models`, below its header line.
_lidarutil_models()
{
    "$1" models 2>/dev/null | awk 'NR > 1 && NF > 0 { print $1 }'
}

# The module names of a model, one a line: `show` heads each module with "== NAME ==".
_lidarutil_modules()
{
    "$1" --model "$2" show 2>/dev/null |
        sed -n 's/^== \(.*[^ ]\) ==[[:space:]]*$/\1/p'
}

# The text of the word being typed, without its quoting: a word begun with a quote has no closing
# one yet.
_lidarutil_unquoted()
{
    local word=$1
    if [[ $word == \'* && ${word:1} != *\'* ]]; then
        printf %s "${word:1}"
    elif [[ $word == \"* && ${word:1} != *\"* ]]; then
        dequote "$word\""
    else
        dequote "$word"
    fi
}

# Names that may hold spaces, one a line, as completions of the word being typed: readline
# then quotes them as it quotes file names (a backslash before a space, or the closing quote
# of a word begun with one).
_lidarutil_reply_lines()
{
    local typed name
    typed=$(_lidarutil_unquoted "$2")
    COMPREPLY=()
    while IFS= read -r name; do
        [[ -n $name && $name == "$typed"* ]] && COMPREPLY+=("$name")
    done <<<"$1"
    compopt -o filenames 2>/dev/null
}

_lidarutil()
{
    local cur prev words cword split
    _init_completion -s || return

    local program=${words[0]}
    case $prev in
        --model)
            COMPREPLY=($(compgen -W "$(_lidarutil_models "$program")" -- "$cur"))
            return
            ;;
        --rs485 | --uart | --hosts | --report | --bmb-app-a | --bmb-app-b | --bmb-fpga | --tmb-fpga | --tmb-param | \
            -o | --output)
            _filedir
            return
            ;;
        --dir | --record)
            _filedir -d
            return
            ;;
        --host | --port | --local-port | --token | -j | --jobs | --count | --variable | --variant | \
            --duration | --interval | --vlan | --exclude)
            return
            ;;
    esac
    $split && return

    # What the line holds so far: the command, a group's command, the words after them and the
    # model named (the program's default when none is).
    local i word command="" group_command="" model=Egret
    local -a positionals=()
    for ((i = 1; i < cword; i++)); do
        word=${words[i]}
        if [[ $word == --model ]]; then
            model=${words[i + 1]}
            ((i++))
        elif [[ $word == --model=* ]]; then
            model=${word#--model=}
        elif [[ " ${_lidarutil_valued_options//$'\n'/ } " == *" $word "* ]]; then
            ((i++))
        elif [[ $word == -* ]]; then
            :
        elif [[ -z $command ]]; then
            command=$word
        elif [[ -z $group_command && -n $(_lidarutil_group_commands "$command") ]]; then
            group_command=$word
        else
            positionals+=("$word")
        fi
    done
    model=$(dequote "$model")

    if [[ $cur == -* ]]; then
        local options="$_lidarutil_program_options"
        [[ -n $command ]] &&
            options+=" $(_lidarutil_command_options "$command${group_command:+ $group_command}")"
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
    fi
    if [[ -z $command ]]; then
        COMPREPLY=($(compgen -W "$_lidarutil_commands" -- "$cur"))
        return
    fi
    local group_commands
    group_commands=$(_lidarutil_group_commands "$command")
    if [[ -n $group_commands && -z $group_command ]]; then
        COMPREPLY=($(compgen -W "$group_commands" -- "$cur"))
        return
    fi

    # The command's own arguments.
    case "$command${group_command:+ $group_command}" in
        read | watch)
            ((${#positionals[@]} == 0)) &&
                _lidarutil_reply_lines "$(_lidarutil_modules "$program" "$model")" "$cur"
            ;;
        export)
            _lidarutil_reply_lines "$(_lidarutil_modules "$program" "$model")" "$cur"
            ;;
        diff | apply)
            ((${#positionals[@]} == 0)) && _filedir
            ;;
        upgrade | oplog | "heron upgrade" | "ota inspect")
            _filedir
            ;;
        "wren standby")
            ((${#positionals[@]} == 0)) && COMPREPLY=($(compgen -W "on off" -- "$cur"))
            ;;
        "wren return-mode")
            ((${#positionals[@]} == 0)) && COMPREPLY=($(compgen -W "strongest last" -- "$cur"))
            ;;
    esac
} &&
    complete -F _lidarutil lidarutil

# ex: filetype=sh
