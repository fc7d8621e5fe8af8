// What a user asked to look at: topics and patterns, without those that are excluded. When nothing
// is given, all topics are meant.
#pragma once

#include "common/names/pattern.h"

namespace kp::tool {

class Selection {
  public:
    // False, with a problem, for a topic that cannot exist.
    bool set(const std::vector<std::string> &wanted, const std::vector<std::string> &excluded,
             Problem &problem);

    bool covers(std::string_view topic) const;
    // Says whether a topic below this directory can be covered. None can where its name would be
    // longer than any topic's, however deep somebody nests directories there.
    bool may_cover_below(std::string_view directory) const;
    // The topic, if exactly one topic was given and no pattern.
    const std::optional<std::string> &single_topic() const
    {
        return single_topic_;
    }
    bool has_only_topics() const
    {
        return !wanted_.empty() && topics_.size() == wanted_.size() && excluded_.empty();
    }
    // The plain topics that were given.
    const std::vector<std::string> &topics() const
    {
        return topics_;
    }

  private:
    std::vector<Pattern> wanted_;
    std::vector<Pattern> excluded_;
    std::vector<std::string> topics_;
    std::optional<std::string> single_topic_;
};

} // namespace kp::tool
