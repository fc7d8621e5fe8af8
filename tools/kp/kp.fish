# fish completion for kp: commands, options, and the topics that are alive.

# The topics, one level at a time, so that a large store stays readable. Names that kp escapes, which is
# what a backslash tells, cannot be typed and are left out; fish quotes all others itself.
function __kp_topics
    set -l word (commandline -ct)
    set -l prefix (string length -- "$word")
    for topic in (kp list 2>/dev/null)
        string match -q -- '*\\\\*' $topic; and continue
        test (string sub -l $prefix -- "$topic") = "$word"; or continue
        set -l rest (string sub -s (math $prefix + 1) -- "$topic")
        if string match -q -- '*/*' $rest
            echo "$word"(string split -m 1 / -- $rest)[1]/
        else
            echo $topic
        end
    end | sort -u
end

function __kp_options
    set -l words (commandline -opc)
    kp $words[2..-1] --help 2>/dev/null | string match -ar -- '(?<=^|[ ,])--?[a-zA-Z0-9][a-z0-9-]*' | sort -u
end

set -l commands list get set info describe check dictionary watch wait hz top dump restore record replay export rm peers doctor gc bench sandbox help
complete -c kp -f
complete -c kp -n "not __fish_seen_subcommand_from $commands" -a "$commands"
complete -c kp -n "__fish_seen_subcommand_from help" -a "$commands"
complete -c kp -n "string match -q -- '-*' (commandline -ct)" -a '(__kp_options)'
complete -c kp -n '__fish_seen_subcommand_from restore replay' -F
complete -c kp -n '__fish_seen_subcommand_from list get set info describe check init watch wait hz top dump record export rm' -a '(__kp_topics)'
complete -c kp -l type -x -a 'boolean int8 int16 int32 int64 uint8 uint16 uint32 uint64 float double string bytearray raw'
complete -c kp -l format -x -a 'plain json csv tsv raw hex'
complete -c kp -n '__fish_seen_subcommand_from dictionary; and not __fish_seen_subcommand_from init' -a init
complete -c kp -l dictionary -x -a '(__fish_complete_directories)'
complete -c kp -l color -x -a 'auto always never'
