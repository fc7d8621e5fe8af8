#include "store/local_writer.h"

#include "base/log.h"
#include "names/topic_names.h"

#include <algorithm>
#include <iterator>

namespace kp::mqtt {

std::unique_ptr<LocalWriter> LocalWriter::start(const std::string &endpoint,
                                                tool::NoticeMarks &marks, Counters &counters,
                                                HandleRecord *record)
{
    auto writer = join(endpoint, marks, counters, record);
    if (writer)
        writer->thread_ = std::thread([self = writer.get()] { self->run(); });
    return writer;
}

std::unique_ptr<LocalWriter> LocalWriter::join(const std::string &endpoint,
                                               tool::NoticeMarks &marks, Counters &counters,
                                               HandleRecord *record)
{
    kp_t *handle = kp_new(endpoint.c_str(), changed);
    if (!handle) {
        log(Level::error, "the tags of this device cannot be joined; see the line above, and the "
                          "rights of /run/providers");
        return nullptr;
    }
    std::unique_ptr<LocalWriter> writer(new LocalWriter(handle, marks, counters, record));
    (void)kp_set_new_tag_notify(handle, 1);
    (void)kp_set_user_data(handle, writer.get());
    return writer;
}

LocalWriter::~LocalWriter()
{
    if (thread_.joinable())
        (void)stop(std::chrono::hours(1));
    store_.close();
    (void)kp_destroy(handle_);
}

// If a notice comes before the user data is set, the first scan finds what it was about.
int LocalWriter::changed(kp_t *, const kp_write_info *notice, void *self)
{
    if (self)
        static_cast<LocalWriter *>(self)->marks_.add(*notice);
    return 0;
}

void LocalWriter::put(const std::string &tag, WriteRequest request)
{
    request.sample.has_value = true;
    const std::lock_guard lock(mutex_);
    const auto [entry, is_first] = waiting_.try_emplace(tag);
    auto &waiting = entry->second;
    if (waiting.write) {
        request.messages += waiting.write->messages;
        std::ranges::copy(waiting.write->when_done, std::back_inserter(request.when_done));
    } else if (!is_first)
        dropping_.erase(tag); // it stays
    waiting.write = std::move(request);
    waiting.quality.reset();
    wake_.notify_one();
}

void LocalWriter::set_quality(const std::string &tag, uint8_t quality)
{
    const std::lock_guard lock(mutex_);
    if (dropping_.contains(tag))
        return;
    auto &waiting = waiting_[tag];
    if (waiting.write)
        waiting.write->sample.quality = quality;
    else
        waiting.quality = quality;
    wake_.notify_one();
}

void LocalWriter::drop(const std::string &tag, bool left_over)
{
    const std::lock_guard lock(mutex_);
    auto &waiting = waiting_[tag];
    if (waiting.write)
        counters_.in += waiting.write->messages; // taken, and gone again at once
    waiting.write.reset();
    waiting.quality.reset();
    waiting.left_over = left_over;
    dropping_.insert(tag);
    wake_.notify_one();
}

void LocalWriter::give_over(const std::string &tag)
{
    const std::lock_guard lock(mutex_);
    giving_over_.push_back(tag);
    wake_.notify_one();
}

bool LocalWriter::is_dropping(const std::string &tag) const
{
    const std::lock_guard lock(mutex_);
    return dropping_.contains(tag);
}

// Requests go by the name that a topic gives; the tag that has the value may be called `NAME/_`.
bool LocalWriter::is_busy_with(const std::string &tag) const
{
    const std::string name = plain_name(tag);
    const std::lock_guard lock(mutex_);
    for (const std::string &known : {tag, name})
        if (waiting_.contains(known) || (in_work_ && in_work_->contains(known)))
            return true;
    return false;
}

std::vector<std::string> LocalWriter::take_outrun()
{
    const std::lock_guard lock(mutex_);
    return std::exchange(outrun_, {});
}

std::chrono::milliseconds LocalWriter::busy_for(Clock::time_point now) const
{
    const std::lock_guard lock(mutex_);
    if (!busy_since_)
        return {};
    return std::chrono::duration_cast<std::chrono::milliseconds>(now - *busy_since_);
}

bool LocalWriter::stop(std::chrono::milliseconds patience)
{
    std::unique_lock lock(mutex_);
    stop_ = true;
    wake_.notify_one();
    const bool ended = ended_.wait_for(lock, patience, [this] { return has_ended_; });
    lock.unlock();
    if (ended && thread_.joinable())
        thread_.join();
    return ended;
}

void LocalWriter::run()
{
    std::unique_lock lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] { return stop_ || !waiting_.empty() || !giving_over_.empty(); });
        if (waiting_.empty() && giving_over_.empty())
            break;
        lock.unlock();
        work_off();
        lock.lock();
    }
    has_ended_ = true;
    ended_.notify_one();
}

void LocalWriter::work_off()
{
    std::unique_lock lock(mutex_);
    const Requests requests = std::exchange(waiting_, {});
    const std::vector<std::string> given_over = std::exchange(giving_over_, {});
    busy_since_ = Clock::now();
    in_work_ = &requests;
    lock.unlock();
    for (const std::string &tag : given_over)
        store_.give_over(tag);
    for (const auto &[name, request] : requests)
        carry_out(name, request);
    lock.lock();
    std::ranges::move(store_.take_outrun(), std::back_inserter(outrun_));
    in_work_ = nullptr; // before it waits for peers: what is written can be sent
    lock.unlock();
    store_.notify();
    lock.lock();
    busy_since_.reset();
}

void LocalWriter::carry_out(const std::string &name, const Request &request)
{
    if (request.write)
        return store_.write(name, *request.write);
    if (request.quality)
        return store_.set_quality(name, *request.quality);
    store_.drop(name, request.left_over);
    const std::lock_guard lock(mutex_);
    dropping_.erase(name);
}

} // namespace kp::mqtt
