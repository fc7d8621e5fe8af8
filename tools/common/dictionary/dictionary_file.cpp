// One file of the dictionary. A mistake costs what it stands in and no more: of a table that TOML
// does not accept, the lines are blanked, and the rest is read again.
#include "common/config/toml_text.h"
#include "common/dictionary/entry_reader.h"
#include "common/names/pattern.h"
#include "common/text/text.h"

#include <algorithm>
#include <unordered_map>

namespace kp::tool {

namespace {

// So many tables of one file may be broken; a file with more is hardly one of the dictionary. Of a
// large file it is fewer, since for each the whole file is read again.
constexpr std::size_t kMostBrokenTables = 50;
constexpr std::size_t kMostBytesReadAgain = 32 << 20;

class Lines {
  public:
    explicit Lines(std::string_view text)
    {
        for (std::size_t start = 0; start <= text.size();) {
            const std::size_t end = std::min(text.find('\n', start), text.size());
            lines_.emplace_back(text.substr(start, end - start));
            start = end + 1;
        }
    }

    // Blanks the table in which a line, counted from 1, stands: from the header at or above it to
    // the next one. Says whether there was anything to blank.
    bool blank_table(std::size_t line)
    {
        if (lines_.empty())
            return false;
        std::size_t first = std::clamp<std::size_t>(line, 1, lines_.size()) - 1;
        while (first > 0 && !is_header(first))
            --first;
        bool is_changed = false;
        for (std::size_t at = first; at < lines_.size() && (at == first || !is_header(at)); ++at) {
            is_changed |= !lines_[at].empty();
            lines_[at].clear();
        }
        return is_changed;
    }

    std::string text() const
    {
        std::string text;
        for (const std::string &line : lines_)
            text += line + '\n';
        return text;
    }

  private:
    bool is_header(std::size_t at) const
    {
        const std::size_t start = lines_[at].find_first_not_of(" \t");
        return start != std::string::npos && lines_[at][start] == '[';
    }

    std::vector<std::string> lines_;
};

// The file's tables but those that are broken. Nothing when too many are.
std::optional<toml::table> parse_what_can_be(std::string_view text,
                                             const std::shared_ptr<const std::string> &name,
                                             std::vector<DictionaryProblem> &problems)
{
    std::optional<Lines> lines;
    const std::size_t most =
        std::clamp<std::size_t>(kMostBytesReadAgain / (text.size() + 1), 1, kMostBrokenTables);
    for (std::size_t broken = 0; broken < most; ++broken) {
        try {
            return broken == 0 ? parse_toml(text) : parse_toml(lines->text());
        } catch (const toml::parse_error &error) {
            const auto at = error.source().begin;
            problems.push_back(
                {{name, at.line, at.column}, problem_text(escaped(error.description()))});
            if (!lines)
                lines.emplace(text);
            if (!lines->blank_table(at.line))
                break;
        }
    }
    return std::nullopt;
}

// The pattern as its levels say, without the slashes that mean nothing; or what is wrong with it.
Result<std::string> normal_pattern(const std::string &pattern)
{
    using Normal = Result<std::string>;
    if (pattern.size() > kMostTopicBytes)
        return Normal::failed("the pattern can't match: it is longer than any topic");
    if (pattern.find_first_not_of('/') == std::string::npos)
        return Normal::failed("the pattern is empty and matches nothing");
    const std::string why =
        is_pattern(pattern) ? pattern_problem(pattern, Dialect::tags) : std::string();
    if (!why.empty())
        return Normal::failed("the pattern can't match: " + why);
    Problem problem;
    const auto normal = normal_topic(pattern, problem);
    return normal ? Normal::of(*normal)
                  : Normal::failed("the pattern can't match: " + problem.text);
}

} // namespace

DictionaryFile parse_dictionary_file(std::string_view text, const std::string &name)
{
    DictionaryFile file;
    const auto shared_name = std::make_shared<const std::string>(name);
    const auto tables = parse_what_can_be(text, shared_name, file.problems);
    if (!tables)
        return file;
    file.entries.reserve(tables->size());
    EntryReader reader(shared_name, file.problems);
    std::unordered_map<std::string, FilePlace> seen;
    for (const auto &[key, node] : *tables) {
        const std::string pattern(key.str());
        const toml::table *table = node.as_table();
        if (!table) {
            reader.problem(key.source(),
                           "\"" + escaped(pattern) + "\" stands outside a table such as [\"a/b\"]");
            continue;
        }
        const auto normal = normal_pattern(pattern);
        if (!normal) {
            reader.problem(key.source(), normal.problem);
            continue;
        }
        const auto [first, is_new] = seen.try_emplace(*normal.value, reader.place(key.source()));
        if (is_new)
            file.entries.push_back(reader.read(key, *table));
        else
            reader.problem(key.source(),
                           "the same pattern as in line " + std::to_string(first->second.line));
    }
    std::ranges::stable_sort(file.problems, {}, [](const DictionaryProblem &problem) {
        return std::pair(problem.place.line, problem.place.column);
    });
    return file;
}

} // namespace kp::tool
