# shellcheck shell=bash
# Completion of replay_sender in bash. The value of an option is the next word; the
# program takes no --option=value.

# The network devices that begin with $1, each the way it has to stand behind the
# quote $2 or, when that is empty, without one.
_replay_sender_devices() {
    local typed=$1 special='\"$`' name text char i
    case $2 in
        "'") special= ;;
        '') special='\"$`'"'"' !&;|<>()[]{}*?#~=@:' ;;
    esac
    while IFS= read -r name; do
        [[ -d /sys/class/net/$name ]] || continue # files there are no devices
        text=$name
        [[ $2 != "'" ]] || text=${text//"'"/"'\\''"}
        for ((i = 0; i < ${#special}; ++i)); do
            char=${special:i:1}
            text=${text//"$char"/"\\$char"}
        done
        [[ $name != "$typed"* && $text != "$typed"* ]] || COMPREPLY+=("$text")
    done < <(command ls -A /sys/class/net 2>/dev/null)
}

# $2 is the word up to the cursor, without an opening quote.
_replay_sender() {
    local names='--help -h --ip --port --filepath --filetype --filter --loopback --mbps
        --protocol --device --preload --debug'
    local option='' word i
    COMPREPLY=()
    [[ ${COMP_WORDS[COMP_CWORD]} != '=' ]] || return 0 # of --option=value

    # A word behind an option that takes a value is that value, whatever it looks like.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i],,}
        if [[ -n $option ]]; then
            option=
        elif [[ $word == --?* && $word != --help && " ${names//$'\n'/ } " == *" $word "* ]]; then
            option=$word
        fi
    done

    case $option in
        '')
            if [[ ${COMP_WORDS[COMP_CWORD - 1]} != '=' ]]; then
                mapfile -t COMPREPLY < <(compgen -W "$names" -- "$2")
            fi
            ;;
        --filepath) compopt -o default ;; # none of ours: the shell's own file names
        --filetype | --preload | --debug) mapfile -t COMPREPLY < <(compgen -W '0 1' -- "$2") ;;
        --protocol) mapfile -t COMPREPLY < <(compgen -W 'tcp udp' -- "$2") ;;
        --device)
            word=${COMP_WORDS[COMP_CWORD]:0:1}
            [[ $word == [\"\'] ]] || word=
            _replay_sender_devices "$2" "$word"
            ;;
    esac
}

complete -F _replay_sender replay_sender
