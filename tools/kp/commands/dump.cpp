// kp dump and kp restore: the store as JSON lines and back, exact to the bit.
#include "commands/commands.h"
#include "common/text/text.h"
#include "common/writing/record_line.h"
#include "looking/declared_topics.h"
#include "options/option_checks.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "running/line_reader.h"
#include "writing/record_store.h"

#include <fcntl.h>
#include <unistd.h>

namespace kp::tool {

namespace {

struct DumpOptions {
    SelectionOptions selection;
};

struct RestoreOptions {
    std::string file = "-";
    double peer_wait = 0.3;
    bool force = false;
    bool now = false;
};

int run_dump(const DumpOptions & /*options*/, const Selection &selection)
{
    Outcome outcome;
    std::size_t printed = 0;
    for_each_declared(selection, outcome,
                      [&printed](const std::string &topic, const Snapshot &snapshot) {
                          output().write(stored_record({topic, snapshot}));
                          ++printed;
                      });
    if (printed == 0)
        outcome.note(kNothing);
    return outcome.code();
}

bool restore_line(const std::string &line, const RestoreOptions &options, NoticeSender &sender,
                  Problem &problem)
{
    auto record = parse_stored_record(line, problem);
    if (!record)
        return false;
    record->write.change_type = options.force;
    if (options.now)
        record->write.timestamp.reset();
    return store_record(*record, sender, problem);
}

int restore_from(int fd, const RestoreOptions &options)
{
    Outcome outcome;
    NoticeSender sender;
    Problem problem;
    LineReader lines(fd);
    while (const auto line = lines.next())
        if (!restore_line(*line, options, sender, problem))
            outcome.note(lines.at_line(problem));
    if (const auto unread = lines.problem(input_name(options.file)))
        outcome.note(*unread);
    if (!sender.send(static_cast<uint64_t>(options.peer_wait * 1e6), problem))
        outcome.note(problem);
    return outcome.code();
}

int run_restore(const RestoreOptions &options)
{
    if (options.file == "-")
        return restore_from(STDIN_FILENO, options);
    const UniqueFd file(open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        return complain(system_problem(input_name(options.file), errno));
    return restore_from(file.get(), options);
}

} // namespace

void add_dump(Commands &commands)
{
    const auto options = std::make_shared<DumpOptions>();
    CLI::App &command = commands.add("dump", "print topics as JSON lines that restore takes back",
                                     on_selection(options, run_dump));
    add_selection(command, options->selection);
}

void add_restore(Commands &commands)
{
    const auto options = std::make_shared<RestoreOptions>();
    CLI::App &command =
        commands.add("restore", "write what dump printed, with its times and qualities",
                     [options] { return run_restore(*options); });
    command.add_option("file", options->file, "the file; standard input unless given")
        ->type_name("FILE");
    command.add_flag("--force", options->force, "change the type of topics that exist");
    command.add_flag("--now", options->now,
                     "written now instead of at the times of the dump, which readers that are "
                     "running take for seen");
    command.add_option("--peer-wait", options->peer_wait, "how long to wait for peers to connect")
        ->type_name("SEC")
        ->check(in_range(0.0, 60.0));
}

} // namespace kp::tool
