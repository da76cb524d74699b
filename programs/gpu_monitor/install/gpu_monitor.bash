# shellcheck shell=bash
# Completion of gpu_monitor for bash. It offers what the program's own help lists; the help starts no driver. The
# program is the one on the command line, so that one in a build folder is completed too.

# The commands that the help on standard input lists.
_gpu_monitor_commands() {
    sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p'
}

# The options there, in their long form.
_gpu_monitor_options() {
    sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z-]*\).*/\2/p'
}

# The options there that need a value.
_gpu_monitor_options_with_value() {
    sed -n 's/^  \(--[a-z-]*\) [A-Z].*/\1/p'
}

# The kinds of simulated GPUs that the help $1 names, and what begins the path of a recording.
_gpu_monitor_kinds() {
    [[ $1 =~ kinds:([a-z,[:space:]]+) ]] && echo "${BASH_REMATCH[1]//,/ } recording:"
}

_gpu_monitor() {
    local IFS=$' \t\n'
    local program=${1/#'~/'/"${HOME-}/"} line=${COMP_LINE-} current=$2 option=$3 joined='' prefix='' help commands command word
    COMPREPLY=()

    # As a rule, bash makes three words of --option=value.
    if [[ ${COMP_WORDS[COMP_CWORD]} == = ]]; then
        joined=yes current=''
    elif [[ $3 == = ]]; then
        joined=yes option=${COMP_WORDS[COMP_CWORD - 2]}
    elif [[ $2 == --*=* ]]; then
        joined=yes option=${2%%=*} current=${2#*=} prefix=$option=
    fi

    # A recording is a file like that of --log. As a rule, bash breaks the word at the colon, too.
    if [[ ${line:0:${COMP_POINT:-0}} =~ [=\ ]recording:([^\ ]*)$ ]]; then
        option=--log current=${BASH_REMATCH[1]} prefix=${2%"$current"}
    fi

    help=$("$program" --help 2>/dev/null) || return 0
    if [[ $joined && $option == --simulate ]]; then
        [[ $current == *,* ]] && prefix+=${current%,*},
        mapfile -t COMPREPLY < <(compgen -P "$prefix" -W "$(_gpu_monitor_kinds "$help")" -- "${current##*,}")
        # Another kind may follow.
        compopt -o nospace 2>/dev/null
        return 0
    fi

    if [[ $option == --log ]]; then
        mapfile -t COMPREPLY < <(compgen -f -P "$prefix" -- "$current")
        compopt -o filenames 2>/dev/null
        return 0
    fi

    commands=$(_gpu_monitor_commands <<<"$help")
    command=''
    for word in "${COMP_WORDS[@]:1:COMP_CWORD - 1}"; do
        if [[ -z $command && $'\n'$commands$'\n' == *$'\n'"$word"$'\n'* ]]; then command=$word; fi
    done
    # A command takes the program's options too.
    [[ $command ]] && help+=$'\n'$("$program" "$command" --help 2>/dev/null)
    if [[ $joined || $'\n'$(_gpu_monitor_options_with_value <<<"$help")$'\n' == *$'\n'"$option"$'\n'* ]]; then
        return 0
    elif [[ $command || $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_gpu_monitor_options <<<"$help" | sort -u)" -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current")
    fi
}

complete -F _gpu_monitor gpu_monitor
