// One topic as one record of output, in each of the formats.
#pragma once

#include "common/values/row_json.h"
#include "common/values/time_text.h"
#include "options/command.h"

namespace kp::tool {

enum class Format { plain, json, csv, tsv, raw, hex };

struct FormatOptions {
    Format format = Format::plain;
    TimeStyle time = TimeStyle::local;
    ByteStyle bytes = ByteStyle::hex;
    std::string field_template; // wins over the format when not empty
    bool verbose = false;       // plain alone: type, quality, times and age beside the value
    bool terse = false;         // plain and hex: the value without the topic
    bool with_meaning = false;  // plain alone: unit, name and state, as with `verbose`
};

// Adds -j, --format, -F and the styles of times and bytes to a command.
void add_format_options(Command &command, FormatOptions &options);

// The topic as JSON, and behind it what the dictionary says, where it says anything.
nlohmann::ordered_json described_json(const Row &row, ByteStyle style);

// The value for people: "-" without one, "(writing)" and "(corrupt)" where none can be shown.
std::string shown_value(const Snapshot &snapshot, ByteStyle style);

// The line that names the columns of csv and tsv, with its line break; "" for all else.
std::string header_line(const FormatOptions &options);

// The record, with its line break where it has one.
std::string row_record(const Row &row, const FormatOptions &options);

// All records on standard output, after a header line where the format has one.
void print_records(const std::vector<Row> &rows, const FormatOptions &options);

} // namespace kp::tool
