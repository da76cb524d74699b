# Completion of gpu_monitor for fish. It offers what the program's own help lists; the help starts no driver. The
# program is the one on the command line, so that one in a build folder is completed too.

# Prints the help of the program or, with the name of a command, of that command.
function __gpu_monitor_help
    set -l words (commandline -opc)
    set -l program (string replace -r '^~/' "$HOME/" -- $words[1])
    $program $argv --help 2>/dev/null
end

function __gpu_monitor_commands
    __gpu_monitor_help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\)  *\(.*\)/\1\t\2/p'
end

# The command that is on the command line; fails when there is none.
function __gpu_monitor_command
    set -l commands (__gpu_monitor_commands | string replace -r '\t.*' '')
    for word in (commandline -opc)[2..]
        contains -- $word $commands; and echo $word; and return
    end
    return 1
end

# The help of the program and of the command that is on the command line.
function __gpu_monitor_whole_help
    __gpu_monitor_help
    set -l command (__gpu_monitor_command); and __gpu_monitor_help $command
end

# With descriptions; none after an option that needs a value.
function __gpu_monitor_options
    set -l help (__gpu_monitor_whole_help)
    set -l previous (string escape --style=regex -- (commandline -opc)[-1])
    string match -q -r -- "^  $previous [A-Z]" $help; and return
    printf '%s\n' $help |
        sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z-]*\)[^ ]*\( [^ ]\{1,\}\)*   *\(.*\)/\2\t\4/p' | sort -u
end

function __gpu_monitor_kinds
    set -l before (string match -r -- '^--simulate=(?:.*,)?' (commandline -ct)); or return
    set -l kinds (string match -r 'kinds:([a-z,\s]+)' -- (__gpu_monitor_help | string join ' '))[2]
    printf '%s\n' $before(string match -a -r '[a-z]+' -- $kinds) --simulate=recording:
end

complete -c gpu_monitor -f
complete -c gpu_monitor -n 'not __gpu_monitor_command' -a '(__gpu_monitor_commands)'
complete -c gpu_monitor -a '(__gpu_monitor_options)'
complete -c gpu_monitor -a '(__gpu_monitor_kinds)'
complete -c gpu_monitor -n 'string match -q -- --log (commandline -opc)[-1]' -F
complete -c gpu_monitor -n "string match -q -- '--simulate=recording:*' (commandline -ct)" -F
