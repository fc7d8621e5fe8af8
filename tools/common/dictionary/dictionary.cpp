#include "common/dictionary/dictionary.h"

#include "common/names/pattern.h"

#include <algorithm>
#include <unordered_map>

namespace kp::tool {

namespace {

struct TextHash {
    using is_transparent = void;

    std::size_t operator()(std::string_view text) const
    {
        return std::hash<std::string_view>()(text);
    }
};

// Takes over what is not known yet.
template <typename T> void add(const Fact<T> *&known, const std::optional<Fact<T>> &fact)
{
    if (!known && fact)
        known = &*fact;
}

void add_entry(Facts &facts, const DictionaryEntry &entry)
{
    facts.is_known = true;
    add(facts.type, entry.type);
    add(facts.size, entry.size);
    add(facts.unit, entry.unit);
    add(facts.description, entry.description);
    add(facts.range, entry.range);
    add(facts.limits, entry.limits);
    add(facts.stale_s, entry.stale_s);
    add(facts.record, entry.record);
    add(facts.names, entry.names);
}

} // namespace

std::optional<std::string> topic_of(const DictionaryEntry &entry)
{
    Problem ignored;
    return is_pattern(entry.pattern) ? std::nullopt : normal_topic(entry.pattern, ignored);
}

// The patterns as a tree of their levels.
struct Dictionary::Node {
    std::unordered_map<std::string, Node, TextHash, std::equal_to<>> names;
    std::unique_ptr<Node> any;                    // below "+"
    std::vector<const DictionaryEntry *> entries; // that end here, the last file's first
    std::vector<const DictionaryEntry *> rest;    // that end here in "#"

    void insert(const DictionaryEntry &entry)
    {
        Node *node = this;
        for (const std::string_view level : split_levels(entry.pattern)) {
            if (level == "#") {
                node->rest.insert(node->rest.begin(), &entry);
                return;
            }
            if (level == "+" && !node->any)
                node->any = std::make_unique<Node>();
            node = level == "+" ? node->any.get() : &node->names[std::string(level)];
        }
        node->entries.insert(node->entries.begin(), &entry);
    }

    // Adds what is known of a topic from its level `at` on, the most exact entry first.
    void collect(const Levels &levels, std::size_t at, Facts &facts) const
    {
        if (at == levels.size()) {
            for (const DictionaryEntry *entry : entries)
                add_entry(facts, *entry);
            return;
        }
        if (const auto found = names.find(levels[at]); found != names.end())
            found->second.collect(levels, at + 1, facts);
        if (any)
            any->collect(levels, at + 1, facts);
        for (const DictionaryEntry *entry : rest)
            add_entry(facts, *entry);
    }
};

Dictionary::Dictionary() = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::vector<std::shared_ptr<const DictionaryFile>> files)
    : files_(std::move(files)), root_(std::make_unique<Node>())
{
    for_each_entry([this](const DictionaryEntry &entry) { root_->insert(entry); });
}

bool Dictionary::is_empty() const
{
    return std::all_of(files_.begin(), files_.end(),
                       [](const auto &file) { return file->entries.empty(); });
}

Facts Dictionary::facts_of(std::string_view topic) const
{
    Facts facts;
    if (root_)
        root_->collect(split_levels(topic), 0, facts);
    return facts;
}

void Dictionary::for_each_entry(const std::function<void(const DictionaryEntry &)> &visit) const
{
    for (const auto &file : files_)
        for (const DictionaryEntry &entry : file->entries)
            visit(entry);
}

} // namespace kp::tool
