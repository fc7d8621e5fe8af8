#include "common/values/topic_metrics.h"

#include "common/clock.h"
#include "common/text/text.h"
#include "common/values/value_text.h"

#include <cinttypes>
#include <cstdio>

namespace kp::tool {

namespace {

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

} // namespace

// Control characters and what is not UTF-8 are escaped as everywhere, so that two topics never
// share a label.
std::string metric_label(const char *name, const std::string &text)
{
    std::string out = std::string(name) + "=\"";
    for (const char byte : escaped(text)) {
        if (byte == '\\' || byte == '"')
            out += '\\';
        out += byte;
    }
    return out + '"';
}

void Gauge::add(const std::string &labels, const std::string &value)
{
    samples += name + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
}

std::string Gauge::text() const
{
    if (samples.empty())
        return {};
    const std::string family = name;
    return "# HELP " + family + " " + help + "\n# TYPE " + family + " gauge\n" + samples;
}

void TopicMetrics::take(const std::string &topic, const Snapshot &snapshot, const std::string &unit)
{
    const std::string labels = metric_label("topic", topic);
    providers_.add(labels, std::to_string(snapshot.providers));
    consumers_.add(labels, std::to_string(snapshot.consumers));
    if (snapshot.condition != Condition::value)
        return;
    quality_.add(labels, std::to_string(snapshot.quality));
    written_.add(labels, seconds_text(snapshot.last_write_ts));
    if (const auto sample = sample_text(snapshot))
        value_.add(unit.empty() ? labels : labels + "," + metric_label("unit", unit), *sample);
}

std::string TopicMetrics::text() const
{
    std::string text;
    for (const Gauge *gauge : {&value_, &quality_, &written_, &providers_, &consumers_})
        text += gauge->text();
    return text;
}

} // namespace kp::tool
