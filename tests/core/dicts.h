// Dictionaries that destroy themselves, and tags to put into them.
#pragma once

#include "core/dict.h"
#include "core/tag.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kptest {

struct DestroyDict {
    void operator()(kp_dict *dict) const
    {
        (void)kp_dict_destroy(dict);
    }
};

using Dict = std::unique_ptr<kp_dict, DestroyDict>;

inline Dict new_dict()
{
    return Dict(kp_dict_new());
}

// The part of a tag that the dictionary looks at.
class Tag {
  public:
    explicit Tag(std::string topic) : topic_(std::move(topic))
    {
        tag_.topic = topic_.data();
    }
    Tag(const Tag &) = delete;
    Tag &operator=(const Tag &) = delete;

    operator kp_tag_t *()
    {
        return &tag_;
    }

  private:
    std::string topic_;
    kp_tag_t tag_{};
};

// Gives the tags of a bucket from its head.
inline std::vector<kp_tag_t *> tags_in(const Dict &dict, uint32_t hash)
{
    std::vector<kp_tag_t *> tags;
    for (const kp_dict_entry *entry = kp_dict_lookup_entry_head(dict.get(), hash); entry;
         entry = kp::next_entry(*entry))
        tags.push_back(entry->tag);
    return tags;
}

using Tags = std::vector<kp_tag_t *>;

} // namespace kptest
