#compdef kp
# zsh completion for kp: commands, options, and the topics that are alive.

# The topics, one level at a time, so that a large store stays readable. Names that kp escapes, which is
# what a backslash tells, cannot be typed and are left out; compadd quotes all others.
_kp_topics() {
    local topic rest word=${(Q)PREFIX}
    local -aU leaves branches
    for topic in ${(f)"$(kp list 2>/dev/null)"}; do
        [[ $topic == ${(b)word}* && $topic != *\\* ]] || continue
        rest=${topic#${(b)word}}
        if [[ $rest == */* ]]; then
            branches+=("$word${rest%%/*}/")
        else
            leaves+=("$topic")
        fi
    done
    compadd -- $leaves
    compadd -S '' -- $branches
}

_kp() {
    local command='' index
    local -a commands=(list get set info describe check dictionary watch wait hz top dump restore record
        replay export rm peers doctor gc bench sandbox help)
    for ((index = 2; index < CURRENT; index++)); do
        [[ $words[index] == (--dictionary|--color) ]] && ((++index)) && continue
        [[ $words[index] == -* ]] && continue
        command=$words[index]
        break
    done
    case $words[CURRENT-1] in
    --type) compadd boolean int8 int16 int32 int64 uint8 uint16 uint32 uint64 float double string bytearray raw && return ;;
    --format) compadd plain json csv tsv raw hex && return ;;
    --color) compadd auto always never && return ;;
    --dictionary) _files -/ && return ;;
    dictionary) [[ $command == dictionary ]] && compadd init && return ;;
    esac
    if [[ -z $command || $command == help ]]; then
        compadd -- $commands
    elif [[ $PREFIX == -* ]]; then
        compadd -- ${(f)"$(kp $command --help 2>/dev/null | grep -oE -- '(^|[ ,])--?[a-zA-Z0-9][a-z0-9-]*' | tr -d ' ,')"}
    elif [[ $command == (restore|replay|sandbox) ]]; then
        _files
    elif [[ $command != (peers|doctor|gc|bench) ]]; then
        _kp_topics
    fi
}

_kp "$@"
