// The way from tags to messages without a broker, at a time of the test's own.
#pragma once

#include "outbound/publications.h"

#include <string>
#include <vector>

namespace kptest {

using namespace kp::mqtt;

class OutboundOf {
  public:
    explicit OutboundOf(const std::string &rule, const std::string &broker = "burst-rate = 0\n",
                        const std::string &state_file = "", const std::string &top = "")
        : configuration_(parse_configuration("device = \"d\"\n" + top + "[broker]\n" + broker +
                                                 "[[out]]\npattern = \"a/#\"\nprefix = \"p\"\n" +
                                                 rule,
                                             "f")
                             .configuration),
          state_(std::move(*StateFile::open(state_file).value)),
          topics_(configuration_, reader_, *state_, pending_),
          shared_(configuration_, reader_, nullptr, *state_, pending_, topics_, 0),
          publications_(configuration_, reader_, nullptr, *state_, "d/boot", pending_, topics_,
                        shared_, counters_)
    {
    }

    // What goes out now, as "topic=payload q=quality".
    std::vector<std::string> messages(bool acknowledge = true)
    {
        std::vector<std::string> texts;
        while (const auto publication = publications_.next(now_)) {
            texts.push_back(
                publication->topic + "=" + publication->payload +
                " q=" + (publication->payload.empty() ? "" : publication->properties[0].second));
            publications_.sent(*publication, ++id_, now_);
            if (acknowledge)
                publications_.acknowledged(id_, {}, now_);
        }
        return texts;
    }
    std::vector<std::string> messages_after_scan()
    {
        topics_.scan(now_);
        return messages();
    }
    // What the tags mean from now on, as in a file of the dictionary.
    void use_dictionary(const std::string &text, bool is_whole = true)
    {
        const auto file =
            std::make_shared<kp::tool::DictionaryFile>(kp::tool::parse_dictionary_file(text, "f"));
        topics_.use(std::make_shared<kp::tool::Dictionary>(
                        std::vector{std::shared_ptr<const kp::tool::DictionaryFile>(file)}),
                    now_);
        publications_.dictionary_changed(is_whole, now_);
    }
    void retained_before(const std::string &mqtt, bool provided = false)
    {
        state_->add(mqtt, provided);
    }
    bool notice(const std::string &tag)
    {
        kp::tool::Buckets buckets;
        buckets.set(kp_hash(tag.c_str()));
        return topics_.refresh(buckets, now_);
    }
    // From the next connection on.
    void set_burst_rate(double rate)
    {
        configuration_.broker.burst_rate = rate;
    }
    void pass(milliseconds time)
    {
        now_ += time;
    }
    TopicTable &topics()
    {
        return topics_;
    }
    Publications *operator->()
    {
        return &publications_;
    }
    Clock::time_point now() const
    {
        return now_;
    }
    const StateFile &state() const
    {
        return *state_;
    }
    const Counters &counters() const
    {
        return counters_;
    }
    int last_id() const
    {
        return id_;
    }

  private:
    Configuration configuration_;
    StoreReader reader_;
    std::unique_ptr<StateFile> state_;
    Counters counters_;
    PendingNames pending_;
    TopicTable topics_;
    SharedTags shared_;
    Publications publications_;
    Clock::time_point now_{std::chrono::hours(1)};
    int id_ = 0;
};

} // namespace kptest
