#include "options/record_options.h"

namespace kp::tool {

void add_peer_wait(Command &command, double &seconds)
{
    command.add_number({"--peer-wait", "how long to wait for peers to connect", "SEC"}, seconds,
                       0.0, 60.0);
}

void add_record_options(Command &command, RecordOptions &options)
{
    command.add_text({"file", "the file; standard input unless given", "FILE"}, options.file);
    command.add_flag("--force", options.force, "change the type of topics that exist");
    add_peer_wait(command, options.peer_wait);
}

} // namespace kp::tool
