#include "options/record_options.h"

#include "options/option_checks.h"

namespace kp::tool {

void add_peer_wait(CLI::App &command, double &seconds)
{
    command.add_option("--peer-wait", seconds, "how long to wait for peers to connect")
        ->type_name("SEC")
        ->check(in_range(0.0, 60.0));
}

void add_record_options(CLI::App &command, RecordOptions &options)
{
    command.add_option("file", options.file, "the file; standard input unless given")
        ->type_name("FILE");
    command.add_flag("--force", options.force, "change the type of topics that exist");
    add_peer_wait(command, options.peer_wait);
}

} // namespace kp::tool
