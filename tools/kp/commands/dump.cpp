// kp dump and kp restore: the store as JSON lines and back, exact to the bit.
#include "commands/commands.h"
#include "common/text/text.h"
#include "common/writing/record_line.h"
#include "looking/declared_topics.h"
#include "options/record_options.h"
#include "options/selection_options.h"
#include "output/output.h"
#include "running/line_reader.h"
#include "writing/record_store.h"

#include <memory>

namespace kp::tool {

namespace {

struct DumpOptions {
    SelectionOptions selection;
};

struct RestoreOptions : RecordOptions {
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
    return run_on_input(options.file, [&options](int fd) { return restore_from(fd, options); });
}

} // namespace

void add_dump(Commands &commands)
{
    const auto options = std::make_shared<DumpOptions>();
    Command command = commands.add("dump", "print topics as JSON lines that restore takes back",
                                   on_selection(options, run_dump));
    add_selection(command, options->selection);
}

void add_restore(Commands &commands)
{
    const auto options = std::make_shared<RestoreOptions>();
    Command command =
        commands.add("restore", "write what dump printed, with its times and qualities",
                     [options] { return run_restore(*options); });
    add_record_options(command, *options);
    command.add_flag("--now", options->now,
                     "written now instead of at the times of the dump, which readers that are "
                     "running take for seen");
}

} // namespace kp::tool
