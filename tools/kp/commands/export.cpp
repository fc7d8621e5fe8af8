// kp export: the topics in the format of another system.
#include "commands/commands.h"
#include "commands/store_walk.h"
#include "common/clock.h"
#include "common/text.h"
#include "common/value_text.h"
#include "options/selection_options.h"
#include "output/output.h"

#include <array>
#include <cinttypes>
#include <cstdio>

namespace kp::tool {

namespace {

struct ExportOptions {
    SelectionOptions selection;
    bool prometheus = false;
};

// A metric and its samples, which the text format wants side by side.
struct Metric {
    const char *name;
    const char *help;
    std::string samples = {};

    void add(const std::string &label, const std::string &value)
    {
        samples += std::string(name) + label + " " + value + "\n";
    }
    void add(const std::string &label, unsigned value)
    {
        add(label, std::to_string(value));
    }
};

// Control characters and what is not UTF-8 are escaped as everywhere, so that two topics never
// share a label.
std::string topic_label(const std::string &topic)
{
    std::string out = "{topic=\"";
    for (const char byte : escaped(topic)) {
        if (byte == '\\' || byte == '"')
            out += '\\';
        out += byte;
    }
    return out + "\"}";
}

std::string seconds_text(uint64_t us)
{
    std::array<char, 32> out{};
    (void)std::snprintf(out.data(), out.size(), "%" PRIu64 ".%06" PRIu64, us / kUsPerSecond,
                        us % kUsPerSecond);
    return out.data();
}

// A value as a sample; nothing for text and bytes.
std::optional<std::string> sample_text(const Snapshot &snapshot)
{
    if (is_text_type(snapshot.type) || is_binary_type(snapshot.type))
        return std::nullopt;
    const std::string text = value_text(snapshot.type, snapshot.bytes);
    if (!is_number_type(snapshot.type))
        return text == "true" ? "1" : "0";
    if (text.ends_with("nan"))
        return "NaN";
    if (text == "inf" || text == "-inf")
        return text == "inf" ? "+Inf" : "-Inf";
    return text;
}

class PrometheusExport {
  public:
    void take(const std::string &topic, const Snapshot &snapshot)
    {
        const std::string label = topic_label(topic);
        providers_.add(label, snapshot.providers);
        consumers_.add(label, snapshot.consumers);
        if (snapshot.condition != Condition::value)
            return;
        quality_.add(label, snapshot.quality);
        written_.add(label, seconds_text(snapshot.last_write_ts));
        if (const auto sample = sample_text(snapshot))
            value_.add(label, *sample);
    }

    void print() const
    {
        for (const Metric *metric : {&value_, &quality_, &written_, &providers_, &consumers_}) {
            if (metric->samples.empty())
                continue;
            const std::string name = metric->name;
            output().line("# HELP " + name + " " + metric->help);
            output().line("# TYPE " + name + " gauge");
            output().write(metric->samples);
        }
    }

    bool is_empty() const
    {
        return providers_.samples.empty();
    }

  private:
    Metric value_{"zu_kp_value", "The latest value of a topic of numbers or booleans."};
    Metric quality_{"zu_kp_quality", "The quality of the value, 0 for none and 1 for good."};
    Metric written_{"zu_kp_write_timestamp_seconds", "When the value was written, since 1970."};
    Metric providers_{"zu_kp_providers", "Handles that are open to provide the topic."};
    Metric consumers_{"zu_kp_consumers", "Handles that are open to consume the topic."};
};

int run_export(const ExportOptions &options)
{
    Problem problem;
    Selection selection;
    if (!selection.set(options.selection.wanted, options.selection.excluded, problem))
        return complain(problem);
    Outcome outcome;
    PrometheusExport metrics;
    for_each_declared(selection, outcome,
                      [&metrics](const std::string &topic, const Snapshot &snapshot) {
                          metrics.take(topic, snapshot);
                      });
    metrics.print();
    if (metrics.is_empty())
        outcome.note(kNothing);
    return outcome.code();
}

} // namespace

void add_export(Commands &commands)
{
    const auto options = std::make_shared<ExportOptions>();
    CLI::App &command = commands.add("export", "print topics in the format of another system",
                                     [options] { return run_export(*options); });
    add_selection(command, options->selection);
    command.add_flag("--prometheus", options->prometheus, "as metrics of Prometheus")->required();
}

} // namespace kp::tool
