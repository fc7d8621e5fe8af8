#include "common/dictionary/fact_lines.h"

#include "common/text/text.h"
#include "layout/value_type.h"

#include <array>
#include <nlohmann/json.hpp>

namespace kp::tool {

namespace {

using nlohmann::ordered_json;

struct NamedLimit {
    const char *name;
    std::optional<double> value;
};

std::array<NamedLimit, 4> named_limits(const ValueLimits &limits)
{
    return {{{"lowlow", limits.lowlow},
             {"low", limits.low},
             {"high", limits.high},
             {"highhigh", limits.highhigh}}};
}

std::string limits_text(const ValueLimits &limits)
{
    std::string text;
    for (const NamedLimit &limit : named_limits(limits))
        if (limit.value)
            text += (text.empty() ? "" : ", ") + std::string(limit.name) + " " +
                    number_text(*limit.value);
    return text;
}

std::string recording_text(const Recording &recording)
{
    std::string text = "changes above " + number_text(recording.deadband);
    if (recording.at_least_s > 0)
        text += ", at least every " + number_text(recording.at_least_s) + " s";
    return text + (recording.keeps_last ? ", the last one kept" : "");
}

std::string names_text(const ValueNames &names)
{
    std::string text;
    for (const auto &[number, name] : names)
        text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + escaped(name);
    return text;
}

ordered_json limits_json(const ValueLimits &limits)
{
    ordered_json object = ordered_json::object();
    for (const NamedLimit &limit : named_limits(limits))
        if (limit.value)
            object[limit.name] = *limit.value;
    return object;
}

ordered_json names_json(const ValueNames &names)
{
    ordered_json object = ordered_json::object();
    for (const auto &[number, name] : names)
        object[std::to_string(number)] = name;
    return object;
}

// Calls `use(key, fact, text_of, json_of)` for each fact that there is.
template <typename Use> void for_each_fact(const Facts &facts, const Use &use)
{
    const auto visit = [&use](const char *key, const auto *fact, const auto &text_of,
                              const auto &json_of) {
        if (fact)
            use(key, fact->place, text_of(fact->value), ordered_json(json_of(fact->value)));
    };
    const auto as_it_is = [](const auto &value) { return value; };
    const auto type_name = [](uint32_t type) { return std::string(kValueTypes[type].name); };
    const auto safe = [](const std::string &text) { return escaped(text); };
    visit("type", facts.type, type_name, type_name);
    visit(
        "size", facts.size, [](uint32_t size) { return std::to_string(size) + " bytes"; },
        as_it_is);
    visit("unit", facts.unit, safe, as_it_is);
    visit("description", facts.description, safe, as_it_is);
    visit(
        "range", facts.range,
        [](const ValueRange &range) {
            return number_text(range.least) + ".." + number_text(range.most);
        },
        [](const ValueRange &range) {
            return ordered_json({range.least, range.most});
        });
    visit("limits", facts.limits, limits_text, limits_json);
    visit(
        "stale", facts.stale_s,
        [](double seconds) { return "after " + number_text(seconds) + " s"; }, as_it_is);
    visit("record", facts.record, recording_text, [](const Recording &recording) {
        return ordered_json{{"deadband", recording.deadband},
                            {"at-least", recording.at_least_s},
                            {"keep", recording.keeps_last}};
    });
    visit("names", facts.names, names_text, names_json);
}

} // namespace

std::vector<FactLine> fact_lines(const Facts &facts)
{
    std::vector<FactLine> lines;
    for_each_fact(facts, [&lines](const char *key, const FilePlace &place, std::string text,
                                  const ordered_json &) {
        lines.push_back({key, std::move(text), place});
    });
    return lines;
}

nlohmann::ordered_json facts_json(const Facts &facts)
{
    ordered_json object = ordered_json::object();
    for_each_fact(facts, [&object](const char *key, const FilePlace &place, const std::string &,
                                   ordered_json value) {
        object[key] = {{"value", std::move(value)},
                       {"file", *place.file},
                       {"line", place.line},
                       {"column", place.column}};
    });
    return object;
}

} // namespace kp::tool
