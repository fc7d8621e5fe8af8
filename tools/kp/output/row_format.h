// One topic as one record of output, in each of the formats.
#pragma once

#include "common/segment_reader.h"
#include "common/value_json.h"
#include "output/time_text.h"

namespace CLI {
class App;
}

namespace kp::tool {

struct Row {
    std::string topic;
    Snapshot snapshot;
};

enum class Format { plain, json, csv, tsv, raw, hex };

struct FormatOptions {
    Format format = Format::plain;
    TimeStyle time = TimeStyle::local;
    ByteStyle bytes = ByteStyle::hex;
    std::string field_template; // wins over the format when not empty
    bool verbose = false;       // plain only: type, quality, times and age beside the value
    bool terse = false;         // plain only: the value without the topic
};

// Adds -j, --format, -F and the styles of times and bytes to a command.
void add_format_options(CLI::App &command, FormatOptions &options);

// Says whether nobody can read the topic's value, which a row shows and a command ends with 4 for.
bool has_broken_value(const Snapshot &snapshot);

// The keys of a JSON object, in their order, never change: topic type value quality ts time
// source_ts size max extra flags providers consumers; then, where they apply, value_b64, topic_b64 and
// problem, which says why a value cannot be read.
nlohmann::ordered_json row_json(const Row &row, ByteStyle style);

// JSON as one line of ASCII, so that no control character of a name reaches a terminal; bytes that
// are not UTF-8 come out as U+FFFD.
std::string json_line(const nlohmann::ordered_json &object);

// The value for people: "-" without one, "(writing)" and "(corrupt)" where none can be shown.
std::string shown_value(const Snapshot &snapshot, ByteStyle style);

// The line that names the columns of csv and tsv, with its line break; "" for all else.
std::string header_line(const FormatOptions &options);

// The record, with its line break where it has one.
std::string row_record(const Row &row, const FormatOptions &options);

// All records on standard output, after a header line where the format has one.
void print_records(const std::vector<Row> &rows, const FormatOptions &options);

} // namespace kp::tool
