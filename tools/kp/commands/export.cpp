// kp export: the topics in the format of another system.
#include "commands/commands.h"
#include "common/values/topic_metrics.h"
#include "looking/declared_topics.h"
#include "options/selection_options.h"
#include "output/output.h"

#include <memory>

namespace kp::tool {

namespace {

struct ExportOptions {
    SelectionOptions selection;
    bool prometheus = false;
};

int run_export(const ExportOptions & /*options*/, const Selection &selection)
{
    Outcome outcome;
    TopicMetrics metrics;
    for_each_declared(selection, outcome,
                      [&metrics](const std::string &topic, const Snapshot &snapshot) {
                          metrics.take(topic, snapshot);
                      });
    output().write(metrics.text());
    if (metrics.is_empty())
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_export(Commands &commands)
{
    const auto options = std::make_shared<ExportOptions>();
    Command command = commands.add("export", "print topics in the format of another system",
                                   on_selection(options, run_export));
    add_selection(command, options->selection);
    command.add_flag("--prometheus", options->prometheus, "as metrics of Prometheus").required();
}

} // namespace kp::tool
