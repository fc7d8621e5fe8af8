#include "store/handle_record.h"

#include "base/log.h"

namespace kp::mqtt {

namespace {

// What a line starts with.
constexpr char kOpened = '+';
constexpr char kClosed = '-';

} // namespace

std::string HandleRecord::load()
{
    journal_.read([this](const std::string &line) {
        if (line.starts_with(kOpened))
            left_.insert(line.substr(1));
        else if (line.starts_with(kClosed))
            left_.erase(line.substr(1));
    });
    left_.erase("");
    return journal_.rewrite(whole());
}

Journal::Whole HandleRecord::whole() const
{
    std::set<std::string> all = left_;
    all.insert(own_.begin(), own_.end());
    std::string text;
    for (const std::string &tag : all)
        text += kOpened + tag + '\n';
    return {std::move(text), all.size()};
}

void HandleRecord::add(const std::string &tag)
{
    if (tag.find('\n') == tag.npos && own_.insert(tag).second && !left_.contains(tag))
        append(kOpened, tag);
}

void HandleRecord::remove(const std::string &tag)
{
    if (own_.erase(tag) > 0 && !left_.contains(tag))
        append(kClosed, tag);
}

void HandleRecord::give_up(const std::string &tag)
{
    if (left_.erase(tag) > 0)
        append(kClosed, tag);
}

void HandleRecord::append(char sign, const std::string &tag)
{
    const std::string problem =
        journal_.append(sign + tag, left_.size() + own_.size(), [this] { return whole(); });
    if (!problem.empty())
        log_bounded(About::writing, "the tags that the bridge provides cannot be noted, so that "
                                    "they stay when it is killed: " +
                                        problem);
}

} // namespace kp::mqtt
