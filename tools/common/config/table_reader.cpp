#include "common/config/table_reader.h"

#include "common/names/pattern.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace kp::tool {

namespace {

std::string short_number(double number)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%g", number);
    return text;
}

} // namespace

const toml::node *TableReader::find(const char *key)
{
    known_.insert(key);
    return table_.get(key);
}

void TableReader::problem(const char *key, const std::string &text)
{
    const toml::node *node = table_.get(key);
    const auto line = (node ? node->source() : table_.source()).begin.line;
    problems_.push_back(where_ + ":" + std::to_string(line) + ": " + key + ": " + text);
}

void TableReader::read(const char *key, std::string &target)
{
    const toml::node *node = find(key);
    if (!node)
        return;
    if (const auto text = node->value_exact<std::string>())
        target = *text;
    else
        problem(key, "must be a text in quotation marks");
}

void TableReader::read(const char *key, bool &target)
{
    const toml::node *node = find(key);
    if (!node)
        return;
    if (const auto value = node->value_exact<bool>())
        target = *value;
    else
        problem(key, "must be true or false");
}

void TableReader::read(const char *key, std::vector<std::string> &target)
{
    const toml::node *node = find(key);
    if (!node)
        return;
    const toml::array *array = node->as_array();
    if (!array || (!array->empty() && !array->is_homogeneous(toml::node_type::string)))
        return problem(key, "must be a list of texts, as [\"a/#\", \"b\"]");
    target.clear();
    for (const toml::node &element : *array)
        target.push_back(*element.value_exact<std::string>());
}

void TableReader::read_patterns(const char *key, std::vector<std::string> &target)
{
    read(key, target);
    for (const std::string &pattern : target)
        if (const std::string why = pattern_problem(pattern, Dialect::tags); !why.empty())
            problem(key, "\"" + pattern + "\" is no pattern of tags: " + why);
}

void TableReader::read(const char *key, double &target, double least, double most)
{
    const toml::node *node = find(key);
    if (!node)
        return;
    const auto value = node->is_number() ? node->value<double>() : std::nullopt;
    if (value && *value >= least && *value <= most)
        target = *value;
    else
        problem(key, "must be a number from " + short_number(least) + " to " + short_number(most));
}

void TableReader::read(const char *key, std::chrono::milliseconds &target, double least,
                       double most)
{
    double seconds = std::chrono::duration<double>(target).count();
    read(key, seconds, least, most);
    target = std::chrono::milliseconds(std::llround(seconds * 1000));
}

std::optional<int64_t> TableReader::integer(const char *key, int64_t least, int64_t most)
{
    const toml::node *node = find(key);
    if (!node)
        return {};
    const auto value = node->value_exact<int64_t>();
    if (value && *value >= least && *value <= most)
        return value;
    problem(key,
            "must be a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    return {};
}

const toml::table *TableReader::table(const char *key)
{
    const toml::node *node = find(key);
    if (node && !node->is_table())
        problem(key, "must be a table, [" + std::string(key) + "]");
    return node ? node->as_table() : nullptr;
}

std::vector<const toml::table *> TableReader::tables(const char *key)
{
    std::vector<const toml::table *> found;
    const toml::node *node = find(key);
    if (!node)
        return found;
    if (!node->is_array_of_tables()) {
        problem(key, "must be written as [[" + std::string(key) + "]]");
        return found;
    }
    for (const toml::node &element : *node->as_array())
        found.push_back(element.as_table());
    return found;
}

void TableReader::refuse_the_rest()
{
    for (const auto &[key, node] : table_) {
        const std::string name(key.str());
        if (!known_.contains(name))
            problem(name.c_str(), "unknown setting");
    }
}

} // namespace kp::tool
