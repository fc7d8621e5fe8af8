#include "inbound/conversion.h"

#include "common/values/value_text.h"
#include "messages/payload.h"

namespace kp::mqtt {

namespace {

// A number as shells and other programs write it: with the end of a line, with a plus sign, and a
// whole one with a fraction of zeros.
std::string_view plain_number(std::string_view text, bool is_integer)
{
    while (text.ends_with('\n') || text.ends_with('\r'))
        text.remove_suffix(1);
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    const size_t point = is_integer ? text.find('.') : text.npos;
    const bool has_zeros = point != text.npos && point > 0 && point + 1 < text.size() &&
                           text.find_first_not_of('0', point + 1) == text.npos;
    return has_zeros ? text.substr(0, point) : text;
}

// The bytes of a value of the sample's type.
tool::Result<std::string> bytes_for(const Sample &sample, const Content &content)
{
    if (content.is_bytes)
        return tool::checked_bytes(sample.type, sample.max_size, content.data);
    if (!tool::is_number_type(sample.type) && sample.type != KP_TYPE_BOOLEAN)
        return tool::checked_bytes(sample.type, sample.max_size, content.data);
    const bool is_integer = !tool::is_floating_type(sample.type);
    const std::string &text = is_integer ? content.whole_or_text() : content.data;
    auto bytes =
        tool::text_bytes(sample.type, plain_number(text, is_integer), tool::ByteStyle::plain);
    return bytes ? tool::checked_bytes(sample.type, sample.max_size, *bytes.value) : bytes;
}

} // namespace

std::string convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                    const Sample &current, WriteRequest &request)
{
    if (outcome == ReadOutcome::busy)
        return "another write to the tag does not end";
    if (outcome == ReadOutcome::refused)
        return "the tag cannot be read: no rights, or not a valid segment";
    Description description = describe(message.properties);
    auto content = take_apart(rule.payload, message.payload, description);
    if (!content)
        return content.problem;
    if (!description.problem.empty())
        return description.problem;
    Sample &sample = request.sample;
    request.is_declared = outcome == ReadOutcome::read;
    sample.type = request.is_declared
                      ? current.type
                      : rule.type.value_or(description.type.value_or(KP_TYPE_STRING));
    sample.max_size = current.max_size;
    sample.extra_info =
        request.is_declared ? current.extra_info : description.extra_info.value_or(0);
    if (!request.is_declared || (has_variable_size(sample.type) && sample.max_size == 0))
        sample.max_size = rule.max_size;
    auto bytes = bytes_for(sample, *content.value);
    if (!bytes)
        return "is no " + std::string(kp_type2str(sample.type)) + " for the tag: " + bytes.problem;
    sample.value = std::move(*bytes.value);
    sample.has_value = true;
    sample.quality = description.quality.value_or(KP_QUALITY_GOOD);
    sample.source_ts = description.source_ts.value_or(kp_get_timestamp_us());
    return {};
}

} // namespace kp::mqtt
