#include "outbound/state_file.h"

#include "base/log.h"
#include "names/topic_names.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/stat.h>

namespace kp::mqtt {

namespace {

// What a line starts with.
constexpr char kKept = '+';
constexpr char kProvided = '=';
constexpr char kTaken = '<';
constexpr char kCleared = '-';

constexpr size_t kFewLines = 1000; // a journal up to this size is not worth rewriting

std::string failure(const std::string &path)
{
    return path + ": " + std::strerror(errno);
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

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
        return failure(lock_path);
    if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? path_ + ": another bridge uses this state file"
                                    : failure(lock_path);
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0)
        last_used_ = static_cast<uint64_t>(status.st_mtim.tv_sec) * 1'000'000 +
                     static_cast<uint64_t>(status.st_mtim.tv_nsec) / 1'000;
    std::ifstream file(path_, std::ios::binary);
    load({std::istreambuf_iterator<char>(file), {}});
    return rewrite();
}

// A last line without its end was cut short by a crash and is left out: its message had not gone
// yet.
void StateFile::load(const std::string &text)
{
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        if (end == text.npos)
            return;
        const std::string topic = text.substr(start + 1, end - start - 1);
        if (!topic.empty() && mqtt_topic_problem(topic).empty())
            apply(text[start], topic);
        start = end + 1;
    }
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

// The new file is written beside the old one and renamed, so that a crash leaves one of the two.
std::string StateFile::rewrite()
{
    std::string text;
    for (const std::string &topic : topics_)
        text += (is_provided(topic) ? kProvided : kKept) + topic + '\n';
    for (const std::string &topic : taken_)
        text += kTaken + topic + '\n';
    const std::string fresh = path_ + ".new";
    UniqueFd file(::open(fresh.c_str(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file || !write_all(file.get(), text) || fdatasync(file.get()) != 0)
        return failure(fresh);
    if (rename(fresh.c_str(), path_.c_str()) != 0)
        return failure(path_);
    journal_.reset(file.release());
    lines_ = topics_.size() + taken_.size();
    return {};
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

// Not with the time that the kernel would set, which can be some milliseconds old.
void StateFile::touch(uint64_t time) const
{
    constexpr uint64_t second = 1'000'000;
    const timespec at{static_cast<time_t>(time / second), static_cast<long>(time % second * 1'000)};
    if (journal_)
        (void)futimens(journal_.get(), std::array{at, at}.data());
}

void StateFile::append(char sign, const std::string &topic)
{
    if (path_.empty())
        return;
    ++lines_;
    // After a failure only a part of the last line may be there, and a new line would be joined to
    // it.
    const bool stale =
        failed_ || (lines_ > kFewLines && lines_ > 2 * (topics_.size() + taken_.size()));
    std::string problem = stale ? rewrite() : std::string();
    if (!stale && !write_all(journal_.get(), sign + topic + '\n'))
        problem = failure(path_);
    if (!problem.empty() && !failed_)
        log(Level::error,
            "the state file cannot be written, so that topics which go while the bridge "
            "is down may stay at the broker: " +
                problem);
    failed_ = !problem.empty();
}

} // namespace kp::mqtt
