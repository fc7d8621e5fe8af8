#include "output/row_format.h"

#include "common/text/encoding.h"
#include "common/text/text.h"
#include "output/output.h"
#include "output/program_dictionary.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

namespace {

using nlohmann::ordered_json;

// A field that contains the separator, a quote or a line break stands in quotes.
std::string csv_field(const std::string &text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string out = "\"";
    for (const char character : text)
        out.append(character == '"' ? 2 : 1, character);
    return out + '"';
}

// The record in csv or tsv.
std::string separated_line(const Row &row, const FormatOptions &options)
{
    const ordered_json object = row_json(row, options.bytes);
    std::string line;
    for (const std::string_view column : kRowKeys) {
        const ordered_json &field = object[std::string(column)];
        std::string text;
        if (column == "flags")
            for (const auto &flag : field)
                text += (text.empty() ? "" : " ") + flag.get<std::string>();
        else if (column == "topic")
            text = escaped(row.topic);
        else if (column == "value" && !field.is_null())
            text = value_text(row.snapshot.type, row.snapshot.bytes, options.bytes);
        else if (field.is_string())
            text = field.get<std::string>();
        else if (!field.is_null())
            text = field.dump();
        const bool tabs = options.format == Format::tsv;
        line += column == kRowKeys[0] ? "" : tabs ? "\t" : ",";
        line += tabs ? text : csv_field(text);
    }
    return line + '\n';
}

std::string age_of(const Snapshot &snapshot)
{
    return snapshot.flags & kHasValue ? age_text(snapshot.last_write_ts, now_us()) : "-";
}

std::string template_field(char letter, const Row &row, const FormatOptions &options)
{
    const Snapshot &snapshot = row.snapshot;
    switch (letter) {
    case 't':
        return escaped(row.topic);
    case 'v':
        return shown_value(snapshot, options.bytes);
    case 'T':
        return snapshot.type_name() ? snapshot.type_name() : "-";
    case 'q':
        return std::to_string(snapshot.quality);
    case 'w':
        return time_text(snapshot.last_write_ts, options.time, now_us());
    case 's':
        return time_text(snapshot.source_ts, options.time, now_us());
    case 'a':
        return age_of(snapshot);
    case 'x':
        return to_hex(snapshot.bytes);
    case 'p':
        return std::to_string(snapshot.providers);
    case 'c':
        return std::to_string(snapshot.consumers);
    case 'S':
        return state_text(meaning_of(row.topic, snapshot));
    case 'u': {
        const Facts facts = dictionary().facts_of(row.topic);
        return facts.unit ? escaped(facts.unit->value) : "";
    }
    case '%':
        return "%";
    default:
        return std::string("%") + letter;
    }
}

std::string template_escape(char letter)
{
    switch (letter) {
    case 'n':
        return "\n";
    case 't':
        return "\t";
    case '0':
        return std::string(1, '\0');
    case '\\':
        return "\\";
    default:
        return std::string("\\") + letter;
    }
}

std::string filled_template(const Row &row, const FormatOptions &options)
{
    const std::string &text = options.field_template;
    std::string out;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const bool special = (text[index] == '%' || text[index] == '\\') && index + 1 < text.size();
        if (!special) {
            out += text[index];
        } else {
            const char kind = text[index++];
            out += kind == '%' ? template_field(text[index], row, options)
                               : template_escape(text[index]);
        }
    }
    // A template that ends its records itself, with \n or \0, gets no second end.
    return out.ends_with('\n') || out.ends_with('\0') ? out : out + '\n';
}

std::string plain_line(const Row &row, const FormatOptions &options)
{
    const Snapshot &snapshot = row.snapshot;
    const Meaning meaning =
        options.verbose || options.with_meaning ? meaning_of(row.topic, snapshot) : Meaning();
    std::string line = options.terse ? "" : escaped(row.topic) + '\t';
    line += meant_value(meaning, shown_value(snapshot, options.bytes));
    if (!options.verbose)
        return colored_by_state(meaning.state ? line + '\t' + state_text(meaning) : line, meaning) +
               '\n';
    const uint64_t now = now_us();
    const bool has_value = snapshot.flags & kHasValue;
    line += '\t';
    line += snapshot.type_name() ? snapshot.type_name() : "-";
    line += "\tquality " + std::to_string(snapshot.quality);
    line += "\twritten " + (has_value ? time_text(snapshot.last_write_ts, options.time, now) : "-");
    line += "\tsource " + (has_value ? time_text(snapshot.source_ts, options.time, now) : "-");
    line += "\tage " + age_of(snapshot);
    return colored_by_state(meaning.state ? line + "\tstate " + state_text(meaning) : line,
                            meaning) +
           '\n';
}

} // namespace

void add_format_options(Command &command, FormatOptions &options)
{
    command.add_choice<Format>({"--format", "plain, json, csv, tsv, raw or hex", "FORMAT"},
                               options.format,
                               {{"plain", Format::plain},
                                {"json", Format::json},
                                {"csv", Format::csv},
                                {"tsv", Format::tsv},
                                {"raw", Format::raw},
                                {"hex", Format::hex}});
    command.on_flag(
        "-j,--json", [&options] { options.format = Format::json; },
        "one JSON object a line, as --format json");
    command.add_text({"-F,--template",
                      "%t topic %v value %T type %q quality %w write time %s source time %a age "
                      "%x hex %p providers %c consumers %u unit %S state; \\n \\t \\0",
                      "TEMPLATE"},
                     options.field_template);
    command.on_flag(
        "--base64", [&options] { options.bytes = ByteStyle::base64; },
        "bytearray and raw values in base64 instead of hexadecimal");
    command.on_flag(
        "--utc", [&options] { options.time = TimeStyle::utc; }, "times in UTC");
    command.on_flag(
        "--epoch", [&options] { options.time = TimeStyle::epoch; },
        "times in microseconds since 1970");
    command.on_flag(
        "--relative", [&options] { options.time = TimeStyle::relative; }, "times as ages");
}

nlohmann::ordered_json described_json(const Row &row, ByteStyle style)
{
    auto object = row_json(row, style);
    add_meaning(object, meaning_of(row.topic, row.snapshot));
    return object;
}

std::string shown_value(const Snapshot &snapshot, ByteStyle style)
{
    switch (snapshot.condition) {
    case Condition::value:
        return value_text(snapshot.type, snapshot.bytes, style);
    case Condition::busy:
        return "(writing)";
    case Condition::corrupt:
        return "(corrupt)";
    default:
        return "-";
    }
}

std::string header_line(const FormatOptions &options)
{
    const bool tabs = options.format == Format::tsv;
    if (!options.field_template.empty() || (!tabs && options.format != Format::csv))
        return "";
    std::string line;
    for (const std::string_view column : kRowKeys) {
        line += line.empty() ? "" : tabs ? "\t" : ",";
        line += column;
    }
    return line + '\n';
}

std::string row_record(const Row &row, const FormatOptions &options)
{
    if (!options.field_template.empty())
        return filled_template(row, options);
    switch (options.format) {
    case Format::json:
        return json_line(described_json(row, options.bytes));
    case Format::csv:
    case Format::tsv:
        return separated_line(row, options);
    case Format::raw:
        return row.snapshot.bytes;
    case Format::hex:
        return (options.terse ? "" : escaped(row.topic) + '\t') + to_hex(row.snapshot.bytes) + '\n';
    case Format::plain:
        break;
    }
    return plain_line(row, options);
}

void print_records(const std::vector<Row> &rows, const FormatOptions &options)
{
    output().write(header_line(options));
    for (const Row &row : rows)
        output().write(row_record(row, options));
}

} // namespace kp::tool
