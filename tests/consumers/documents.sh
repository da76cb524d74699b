#!/usr/bin/env bash
# The man page and the bash completion name the commands and options of the program's help: all of them and no others.
#
#   documents.sh PROGRAM MAN_PAGE [BASH_COMPLETION]    without commands, a program has no completion
set -euo pipefail

program=$1 page=$2 completion=${3-}

# Differences are printed as diff does: - marks what only the help has, + marks what only the document has.
failures=0
expect_same() {
    local difference
    if ! difference=$(diff -U 0 --label help --label "$1" <(sort -u <<<"$2") <(sort -u <<<"$3")); then
        printf '%s differs from the help:\n%s\n' "$1" "$difference" >&2
        failures=$((failures + 1))
    fi
}

options_in() { grep -oE -- '--[a-z][a-z-]*' <<<"$1" || true; }

# ---- What the help says ----

# The options that the help $1 lists. Lines of the list begin with them; descriptions and examples may name others.
help_options() { options_in "$(grep -E '^ +-' <<<"$1" | cut -c -24)"; }

help=$("$program" --help)
commands=$(awk '/^[A-Z]/ { listed = /^Subcommands:/ } listed && /^  [a-z]/ { print $1 }' <<<"$help")
program_options=$(help_options "$help")
if [[ -n $completion && -z $commands || -z $program_options ]]; then
    echo "documents: the help lists no commands or no options" >&2
    exit 1
fi
all_options=$program_options
declare -A options_of
for command in $commands; do
    options_of[$command]=$(help_options "$("$program" "$command" --help)" | grep -vxFe "$program_options" || true)
    all_options+=$'\n'${options_of[$command]}
done
all_options=$(grep . <<<"$all_options")

# ---- The man page ----

plain_page=$(sed -e '/^\.\\"/d' -e 's/\\f.//g' -e 's/\\-/-/g' "$page")

# Entries of the sections whose names match $1: the lines that follow .TP.
entries() {
    awk -v wanted="^\\.SH ($1)\$" '/^\.SH / { inside = $0 ~ wanted } inside && entry; { entry = /^\.TP/ }' \
        <<<"$plain_page"
}

entries_of_commands=$(entries COMMANDS)
expect_same "the man page, section COMMANDS" "$commands" "$(cut -d ' ' -f 1 <<<"$entries_of_commands")"
for command in $commands; do
    line=$(grep -E "^$command( |\$)" <<<"$entries_of_commands" || true)
    expect_same "the man page, $command" "${options_of[$command]}" "$(options_in "$line")"
done
expect_same "the man page, section OPTIONS" "$all_options" "$(options_in "$(entries OPTIONS)")"
expect_same "the man page" "$all_options" "$(options_in "$plain_page")"
[[ -n $completion ]] || exit $((failures > 0))

# ---- The bash completion ----

# Prints what is offered for the last of the words. As this shell is not interactive, it has no other completions.
offered() (
    # shellcheck source=/dev/null
    source "$completion"
    [[ $(complete -p gpu_monitor) =~ -F\ ([^ ]+) ]]
    COMP_WORDS=("$program" "$@") COMP_CWORD=$#
    current=${!#}
    # The word after the sign is empty then.
    [[ $current != = ]] || current=''
    "${BASH_REMATCH[1]}" "$program" "$current" "${COMP_WORDS[COMP_CWORD - 1]}"
    printf '%s\n' "${COMPREPLY[@]}"
)

expect_same "the completion of commands" "$commands" "$(offered '')"
expect_same "the completion of the program's options" "$program_options" "$(offered -)"
for command in $commands; do
    expected=$program_options$'\n'${options_of[$command]}
    expect_same "the completion of $command" "$(grep . <<<"$expected")" "$(offered "$command" --)"
done
# An unknown kind is refused with a list of the kinds and of what else there is.
refusal=$("$program" list --simulate=none 2>&1 || true)
kinds=$(grep -oE '[a-z]+(,[a-z]+)+|recording:' <<<"$refusal" | tr , '\n')
expect_same "the completion of --simulate=" "$kinds" "$(offered list --simulate =)"
expect_same "the completion of --interval" '' "$(offered stream --interval '')"

exit $((failures > 0))
