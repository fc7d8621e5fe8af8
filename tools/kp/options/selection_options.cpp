#include "options/selection_options.h"

namespace kp::tool {

Option add_selection(Command &command, SelectionOptions &options)
{
    command.add_repeatable({"-x,--exclude", "leave out what matches; may be repeated", "PATTERN"},
                           options.excluded);
    return command.add_words({"topics", "topics and patterns", "TOPIC|PATTERN"}, options.wanted);
}

} // namespace kp::tool
