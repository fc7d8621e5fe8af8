#include "topics/state_file.h"

#include "base/log.h"
#include "common/clock.h"
#include "common/problem.h"
#include "names/topic_names.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace kp::mqtt {

namespace {

// What a line starts with.
constexpr char kKept = '+';
constexpr char kProvided = '=';
constexpr char kTaken = '<';
constexpr char kCleared = '-';
constexpr char kStarted = '@';  // a time, not a topic; none when the run has left
constexpr char kCaughtUp = '~'; // a time, not a topic

} // namespace

tool::Result<std::unique_ptr<StateFile>> StateFile::open(const std::string &path)
{
    using Opened = tool::Result<std::unique_ptr<StateFile>>;
    std::unique_ptr<StateFile> file(new StateFile(path));
    if (!path.empty())
        if (std::string problem = file->open_and_load(); !problem.empty())
            return Opened::failed(std::move(problem));
    return Opened::of(std::move(file));
}

std::string StateFile::open_and_load()
{
    const std::string lock_path = path_ + ".lock";
    lock_.reset(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_)
        return tool::system_text(lock_path, errno);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? path_ + ": another bridge uses this state file"
                                    : tool::system_text(lock_path, errno);
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0)
        last_used_ = tool::to_us(status.st_mtim);
    journal_.read([this](const std::string &line) { load(line); });
    if (knowledge_)
        last_used_ = knowledge_->until;
    had_caught_up_ = !knowledge_ || knowledge_->has_caught_up;
    knowledge_ = Knowledge{last_used_, had_caught_up_};
    return journal_.rewrite(whole());
}

// A line that was cut short is left out: its message had not gone yet.
void StateFile::load(const std::string &line)
{
    const std::string topic = line.empty() ? std::string() : line.substr(1);
    if (line == std::string(1, kStarted))
        knowledge_.reset();
    else if (line.starts_with(kStarted) || line.starts_with(kCaughtUp))
        knowledge_ = Knowledge{std::strtoull(topic.c_str(), nullptr, 10), line[0] == kCaughtUp};
    else if (!topic.empty() && mqtt_topic_problem(topic).empty())
        apply(line[0], topic);
}

// Whether the line says something new.
bool StateFile::apply(char sign, const std::string &topic)
{
    const bool was_kept = topics_.contains(topic);
    const bool was_provided = provided_.contains(topic);
    const bool was_taken = taken_.contains(topic);
    const bool keeps = sign == kKept || sign == kProvided;
    if (!keeps && sign != kTaken && sign != kCleared)
        return false;
    topics_.erase(topic);
    provided_.erase(topic);
    taken_.erase(topic);
    if (keeps)
        topics_.insert(topic);
    if (sign == kProvided)
        provided_.insert(topic);
    if (sign == kTaken)
        taken_.insert(topic);
    return was_kept != keeps || was_provided != (sign == kProvided) ||
           was_taken != (sign == kTaken);
}

Journal::Whole StateFile::whole() const
{
    std::string text;
    if (knowledge_)
        text += (knowledge_->has_caught_up ? kCaughtUp : kStarted) +
                std::to_string(knowledge_->until) + '\n';
    for (const std::string &topic : topics_)
        text += (is_provided(topic) ? kProvided : kKept) + topic + '\n';
    for (const std::string &topic : taken_)
        text += kTaken + topic + '\n';
    return {std::move(text), size()};
}

void StateFile::add(const std::string &topic, bool provided)
{
    const char sign = provided ? kProvided : kKept;
    if (apply(sign, topic))
        append(sign, topic);
}

void StateFile::remove(const std::string &topic)
{
    if (apply(kCleared, topic))
        append(kCleared, topic);
}

void StateFile::take(const std::string &topic)
{
    if (apply(kTaken, topic))
        append(kTaken, topic);
}

void StateFile::start(uint64_t known_until)
{
    knowledge_ = Knowledge{known_until, false};
    append(kStarted, std::to_string(known_until));
}

void StateFile::catch_up(uint64_t time)
{
    knowledge_ = Knowledge{time, true};
    append(kCaughtUp, std::to_string(time));
}

void StateFile::leave(uint64_t time)
{
    knowledge_.reset();
    append(kStarted, "");
    touch(time);
}

// Not with the time that the kernel would set, which can be some milliseconds old.
void StateFile::touch(uint64_t time) const
{
    constexpr uint64_t second = 1'000'000;
    const timespec at{static_cast<time_t>(time / second), static_cast<long>(time % second * 1'000)};
    if (journal_.fd() >= 0)
        (void)futimens(journal_.fd(), std::array{at, at}.data());
}

void StateFile::append(char sign, const std::string &topic)
{
    const std::string problem = journal_.append(sign + topic, size(), [this] { return whole(); });
    if (!problem.empty() && !failed_)
        log(Level::error,
            "the state file cannot be written, so that topics which go while the bridge "
            "is down may stay at the broker: " +
                problem);
    failed_ = !problem.empty();
}

} // namespace kp::mqtt
