// A program's configuration file: TOML, of which all mistakes are told at once.
#pragma once

#include "common/config/configured.h"
#include "common/config/table_reader.h"

#include <string>
#include <string_view>

namespace kp::tool {

// Makes of a table what a program wants to know. Adds a problem for each mistake, with `path`.
template <typename Configuration>
using ReadTable = Configuration (*)(const toml::table &file, const std::string &path,
                                    Problems &problems);

// The table of a text; the problem names the file and the line.
Result<toml::table> configuration_table(std::string_view text, const std::string &path);
// The text of a file, or of a pipe that somebody writes to; the problem names it. Waits for nobody
// longer than two seconds.
Result<std::string> configuration_text(const std::string &path);

// Reads and checks a text; `path` is for messages.
template <typename Configuration>
Configured<Configuration> parse_configuration(std::string_view text, const std::string &path,
                                              ReadTable<Configuration> read)
{
    const auto table = configuration_table(text, path);
    if (!table)
        return {{}, {table.problem}};
    Configured<Configuration> result;
    result.configuration = read(*table.value, path, result.problems);
    return result;
}

// Does the same with a file.
template <typename Configuration>
Configured<Configuration> load_configuration(const std::string &path, ReadTable<Configuration> read)
{
    const auto text = configuration_text(path);
    if (!text)
        return {{}, {text.problem}};
    return parse_configuration(*text.value, path, read);
}

} // namespace kp::tool
