#include "common/dictionary/entry_reader.h"

#include "common/names/pattern.h"
#include "common/text/parse_number.h"
#include "common/text/text.h"
#include "common/values/value_text.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace kp::tool {

namespace {

constexpr std::size_t kMostUnitBytes = 64;
constexpr std::size_t kMostDescriptionBytes = 1000;
constexpr std::size_t kMostNames = 1000;
constexpr std::size_t kMostProblemColumns = 300;

std::optional<double> finite_number(const toml::node &node)
{
    const auto number = node.is_number() ? node.value<double>() : std::nullopt;
    return number && std::isfinite(*number) ? number : std::nullopt;
}

// Whatever the character set of the terminal is.
bool can_be_shown(std::string_view text)
{
    while (!text.empty()) {
        const CodePoint point = next_code_point(text);
        if (!point.valid || is_unsafe_to_show(point.value))
            return false;
        text.remove_prefix(point.bytes);
    }
    return true;
}

Result<std::string> parse_text(const toml::node &node, std::size_t most)
{
    const auto *text = node.as_string();
    if (!text)
        return Result<std::string>::failed("must be a text in quotation marks");
    if (text->get().size() > most)
        return Result<std::string>::failed("is longer than " + std::to_string(most) + " bytes");
    if (!can_be_shown(text->get()))
        return Result<std::string>::failed("holds characters that cannot be shown");
    return Result<std::string>::of(text->get());
}

Result<uint32_t> parse_type(const toml::node &node)
{
    const auto *name = node.as_string();
    for (const ValueType &type : kValueTypes)
        if (name && name->get() == type.name)
            return Result<uint32_t>::of(type.code);
    std::string names;
    for (const ValueType &type : kValueTypes)
        names += (names.empty() ? "" : ", ") + std::string(type.name);
    return Result<uint32_t>::failed("must be one of " + names);
}

Result<uint32_t> parse_size(const toml::node &node)
{
    const auto size = node.value_exact<int64_t>();
    if (!size || *size < 1 || *size > KP_MAX_VALUE_SIZE)
        return Result<uint32_t>::failed("must be a whole number of bytes from 1 to " +
                                        std::to_string(KP_MAX_VALUE_SIZE));
    return Result<uint32_t>::of(static_cast<uint32_t>(*size));
}

Result<ValueRange> parse_range(const toml::node &node)
{
    const toml::array *array = node.as_array();
    const auto least = array && array->size() == 2 ? finite_number(*array->get(0)) : std::nullopt;
    const auto most = least ? finite_number(*array->get(1)) : std::nullopt;
    if (!most)
        return Result<ValueRange>::failed("must be two numbers, as [0, 100]");
    if (*least > *most)
        return Result<ValueRange>::failed("is the wrong way round");
    return Result<ValueRange>::of({*least, *most});
}

Result<ValueLimits> parse_limits(const toml::node &node)
{
    using Limits = Result<ValueLimits>;
    const toml::table *table = node.as_table();
    if (!table || table->empty())
        return Limits::failed("must be a table, as { low = 10, high = 90 }");
    ValueLimits limits;
    const std::array<std::pair<std::string_view, std::optional<double> *>, 4> known{
        {{"lowlow", &limits.lowlow},
         {"low", &limits.low},
         {"high", &limits.high},
         {"highhigh", &limits.highhigh}}};
    for (const auto &[key, value] : *table) {
        const auto *const field =
            std::find_if(known.begin(), known.end(),
                         [name = key.str()](const auto &one) { return one.first == name; });
        if (field == known.end())
            return Limits::failed("has no \"" + escaped(key.str()) +
                                  "\", but lowlow, low, high and highhigh");
        *field->second = finite_number(value);
        if (!*field->second)
            return Limits::failed(std::string(field->first) + " must be a number");
    }
    std::optional<double> before;
    for (const auto &[name, value] : known) {
        if (before && *value && **value < *before)
            return Limits::failed(std::string(name) + " is below the limit before it");
        if (*value)
            before = **value;
    }
    return Limits::of(limits);
}

Result<double> parse_seconds(const toml::node &node)
{
    const auto seconds = finite_number(node);
    if (!seconds || *seconds <= 0)
        return Result<double>::failed("must be a number of seconds above 0");
    return Result<double>::of(*seconds);
}

Result<Recording> parse_recording(const toml::node &node)
{
    using Read = Result<Recording>;
    const toml::table *table = node.as_table();
    if (!table)
        return Read::failed("must be a table, as { deadband = 0.2, at-least = 600, keep = true }");
    Recording recording;
    for (const auto &[key, value] : *table) {
        const auto number = finite_number(value);
        if (key.str() == "deadband" && number && *number >= 0)
            recording.deadband = *number;
        else if (key.str() == "at-least" && number && *number >= 0)
            recording.at_least_s = *number;
        else if (key.str() == "keep" && value.is_boolean())
            recording.keeps_last = *value.value_exact<bool>();
        else if (key.str() == "deadband" || key.str() == "at-least")
            return Read::failed(std::string(key.str()) + " must be a number of at least 0");
        else if (key.str() == "keep")
            return Read::failed("keep must be true or false");
        else
            return Read::failed("has no \"" + escaped(key.str()) +
                                "\", but deadband, at-least and keep");
    }
    return Read::of(recording);
}

Result<ValueNames> parse_names(const toml::node &node)
{
    using Names = Result<ValueNames>;
    const toml::table *table = node.as_table();
    if (!table || table->empty())
        return Names::failed("must be a table, as { 0 = \"off\", 1 = \"on\" }");
    if (table->size() > kMostNames)
        return Names::failed("has more than " + std::to_string(kMostNames) + " of them");
    ValueNames names;
    for (const auto &[key, value] : *table) {
        const std::string_view text = key.str();
        const auto number = parse_number<int64_t>(text);
        if (!number)
            return Names::failed("\"" + escaped(text) + "\" is not a whole number");
        auto name = parse_text(value, kMostUnitBytes);
        if (!name || name.value->empty())
            return Names::failed("the name of " + std::to_string(*number) + " " +
                                 (name ? "is empty" : name.problem));
        if (parse_number<int64_t>(*name.value)) // it could not be told from a value
            return Names::failed("the name of " + std::to_string(*number) + " is a number");
        for (const auto &[other, taken] : names)
            if (taken == *name.value)
                return Names::failed("\"" + escaped(taken) + "\" names two values");
        names[*number] = std::move(*name.value);
    }
    return Names::of(std::move(names));
}

} // namespace

std::string problem_text(const std::string &text)
{
    return shortened(text, kMostProblemColumns);
}

FilePlace EntryReader::place(const toml::source_region &at) const
{
    return {file_, at.begin.line, at.begin.column};
}

void EntryReader::problem(const toml::source_region &at, const std::string &text)
{
    problems_.push_back({place(at), problem_text(text)});
}

void EntryReader::read_key(DictionaryEntry &entry, const toml::key &key, const toml::node &node)
{
    const std::string_view name = key.str();
    if (name == "type")
        take(entry.type, key, node, parse_type);
    else if (name == "size")
        take(entry.size, key, node, parse_size);
    else if (name == "unit")
        take(entry.unit, key, node,
             [](const toml::node &text) { return parse_text(text, kMostUnitBytes); });
    else if (name == "description")
        take(entry.description, key, node,
             [](const toml::node &text) { return parse_text(text, kMostDescriptionBytes); });
    else if (name == "range")
        take(entry.range, key, node, parse_range);
    else if (name == "limits")
        take(entry.limits, key, node, parse_limits);
    else if (name == "stale")
        take(entry.stale_s, key, node, parse_seconds);
    else if (name == "record")
        take(entry.record, key, node, parse_recording);
    else if (name == "names")
        take(entry.names, key, node, parse_names);
    else
        problem(key.source(), "\"" + escaped(name) + "\" is not known");
}

// What fits no value of the type is left out, since it can only be a mistake.
void EntryReader::check(DictionaryEntry &entry)
{
    const auto drop = [this](auto &fact, const std::string &text) {
        problems_.push_back({fact->place, text});
        fact.reset();
    };
    if (entry.limits && entry.range && !lie_in(entry.limits->value, entry.range->value))
        drop(entry.limits, "limits: one lies outside the range");
    if (!entry.type)
        return;
    const uint32_t type = entry.type->value;
    const std::string name = kValueTypes[type].name;
    if (entry.range && !is_number_type(type))
        drop(entry.range, "range: a " + name + " has none");
    if (entry.limits && !is_number_type(type))
        drop(entry.limits, "limits: a " + name + " has none");
    if (entry.names && (has_variable_size(type) || is_floating_type(type)))
        drop(entry.names, "names: a " + name + " has none");
    if (entry.size && !has_variable_size(type))
        drop(entry.size, "size: a " + name + " always has the same");
}

DictionaryEntry EntryReader::read(const toml::key &pattern, const toml::table &table)
{
    DictionaryEntry entry;
    entry.pattern = pattern.str();
    is_pattern_ = is_pattern(entry.pattern);
    entry.place = place(pattern.source());
    for (const auto &[key, node] : table)
        read_key(entry, key, node);
    check(entry);
    return entry;
}

} // namespace kp::tool
