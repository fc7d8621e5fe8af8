#include "options/selection_options.h"

namespace kp::tool {

CLI::Option *add_selection(CLI::App &command, SelectionOptions &options)
{
    command.add_option("-x,--exclude", options.excluded, "leave out what matches; may be repeated")
        ->type_name("PATTERN")
        ->take_all()
        ->allow_extra_args(false);
    return command.add_option("topics", options.wanted, "topics and patterns")
        ->type_name("TOPIC|PATTERN");
}

} // namespace kp::tool
