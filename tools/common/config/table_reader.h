// Reads the values of one TOML table by name and type. It does not stop at the first mistake: it
// collects all of them, with their lines.
#pragma once

#include "common/config/toml.h"
#include "common/result.h"

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kp::tool {

using Problems = std::vector<std::string>;

class TableReader {
  public:
    // `where` is for messages, as "file:" or "file: [broker]".
    TableReader(const toml::table &table, std::string where, Problems &problems)
        : table_(table), where_(std::move(where)), problems_(problems)
    {
    }

    bool has(std::string_view key) const
    {
        return table_.contains(key);
    }

    // Each of these leaves the target as it is if the key is missing, and adds a problem if the
    // value is wrong.
    void read(const char *key, std::string &target);
    void read(const char *key, bool &target);
    void read(const char *key, std::vector<std::string> &target);
    void read(const char *key, double &target, double least, double most);
    template <typename T> void read_integer(const char *key, T &target, int64_t least, int64_t most)
    {
        if (const auto value = integer(key, least, most))
            target = static_cast<T>(*value);
    }
    // Reads patterns of tags, and adds a problem for each that is none.
    void read_patterns(const char *key, std::vector<std::string> &target);
    // Reads seconds, which may have fractions.
    void read(const char *key, std::chrono::milliseconds &target, double least, double most);
    // Reads a text that `parse` accepts; else its problem is added.
    template <typename T>
    void read(const char *key, T &target,
              const std::function<Result<T>(const std::string &)> &parse)
    {
        std::string text;
        const size_t before = problems_.size();
        read(key, text);
        if (!has(key) || problems_.size() != before)
            return;
        if (auto value = parse(text))
            target = std::move(*value.value);
        else
            problem(key, value.problem);
    }

    // The tables below a key: one table, or an array of tables.
    const toml::table *table(const char *key);
    std::vector<const toml::table *> tables(const char *key);

    // Adds a problem with the key's line.
    void problem(const char *key, const std::string &text);

    // Adds a problem for every key that was not asked for.
    void refuse_the_rest();

  private:
    const toml::node *find(const char *key);
    std::optional<int64_t> integer(const char *key, int64_t least, int64_t most);

    const toml::table &table_;
    std::string where_;
    Problems &problems_;
    std::set<std::string, std::less<>> known_;
};

} // namespace kp::tool
