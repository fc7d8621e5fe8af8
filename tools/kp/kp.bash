# bash completion for kp: commands, options, and the topics that are alive.

# The topics that begin with the word, one level at a time, so that a large store stays readable. Names
# that kp escapes, which is what a backslash tells, can't be typed and are left out. All others are quoted:
# a topic may be named anything, and none may become a command of the one who completes it.
_kp_topics() {
    local word=$1 topic rest
    while IFS= read -r topic; do
        [[ $topic == "$word"* && $topic != *\\* ]] || continue
        rest=${topic#"$word"}
        if [[ $rest == */* ]]; then
            printf '%q\n' "$word${rest%%/*}/"
        else
            printf '%q\n' "$topic"
        fi
    done < <(kp list 2>/dev/null) | sort -u
}

# The word as the shell will read it.
_kp_unquoted() {
    case $1 in
    [\'\"]*) printf '%s' "${1:1}" ;;
    *) printf '%s' "${1//\\/}" ;;
    esac
}

# What kp sandbox takes: a command behind --, and its own words, which are completed as files.
_kp_sandbox() {
    local word=$1 previous=$2
    if [[ $previous == -- ]]; then
        mapfile -t COMPREPLY < <(compgen -c -- "$word")
    elif [[ $previous == --keep ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
    elif [[ " ${COMP_WORDS[*]:0:COMP_CWORD} " == *' -- '* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -W '--network-none --keep --help --' -- "$word")
    fi
}

_kp() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' index
    local commands='list get set info describe check dictionary watch wait hz top
        dump restore record replay export rm peers doctor gc bench sandbox help'
    COMPREPLY=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
        --dictionary | --color) ((++index)) ;; # and its value
        -*) ;;
        *)
            command=${COMP_WORDS[index]}
            break
            ;;
        esac
    done
    case $previous in
    --type)
        mapfile -t COMPREPLY < <(compgen -W 'boolean int8 int16 int32 int64 uint8 uint16 uint32
            uint64 float double string bytearray raw' -- "$word")
        return
        ;;
    --format)
        mapfile -t COMPREPLY < <(compgen -W 'plain json csv tsv raw hex' -- "$word")
        return
        ;;
    --color)
        mapfile -t COMPREPLY < <(compgen -W 'auto always never' -- "$word")
        return
        ;;
    --dictionary)
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
        return
        ;;
    dictionary)
        if [[ $command == dictionary ]]; then
            mapfile -t COMPREPLY < <(compgen -W init -- "$word")
            return
        fi
        ;;
    esac
    if [[ -z $command || $command == help ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
    elif [[ $command == sandbox ]]; then
        _kp_sandbox "$word" "$previous"
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(kp "$command" --help 2>/dev/null |
            grep -oE -- '(^|[ ,])--?[a-zA-Z0-9][a-z0-9-]*' | tr -d ' ,')" -- "$word")
    elif [[ $command == restore || $command == replay ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    else
        case $command in
        peers | doctor | gc | bench) return ;;
        esac
        mapfile -t COMPREPLY < <(_kp_topics "$(_kp_unquoted "$word")")
        [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
    fi
}

complete -F _kp kp
