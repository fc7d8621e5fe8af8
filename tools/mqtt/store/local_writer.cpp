#include "store/local_writer.h"

#include "base/log.h"
#include "common/text.h"
#include "names/topic_names.h"

#include <algorithm>
#include <iterator>

namespace kp::mqtt {

std::unique_ptr<LocalWriter> LocalWriter::start(const std::string &endpoint,
                                                tool::NoticeMarks &marks, Counters &counters)
{
    std::unique_ptr<LocalWriter> writer(new LocalWriter(marks, counters));
    writer->handle_ = kp_new(endpoint.c_str(), changed);
    if (!writer->handle_) {
        log(Level::error, "the tags of this device cannot be joined; see the line above, and the "
                          "rights of /run/providers");
        return nullptr;
    }
    (void)kp_set_new_tag_notify(writer->handle_, 1);
    (void)kp_set_user_data(writer->handle_, writer.get());
    writer->thread_ = std::thread([self = writer.get()] { self->run(); });
    return writer;
}

LocalWriter::~LocalWriter()
{
    if (!handle_)
        return;
    if (thread_.joinable())
        (void)stop(std::chrono::hours(1));
    (void)kp_tags_destroy(handle_);
    made_.remove_all();
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

bool LocalWriter::is_dropping(const std::string &tag) const
{
    const std::lock_guard lock(mutex_);
    return dropping_.contains(tag);
}

// Requests go by the name that a topic gives; the tag that has the value may be called `NAME/_`.
bool LocalWriter::is_busy_with(const std::string &tag) const
{
    std::string name = tag;
    while (name.ends_with("/_"))
        name.resize(name.size() - 2);
    const std::lock_guard lock(mutex_);
    for (const std::string &known : {tag, name})
        if (waiting_.contains(known) || (in_work_ && in_work_->contains(known)))
            return true;
    return false;
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
        wake_.wait(lock, [this] { return stop_ || !waiting_.empty(); });
        if (waiting_.empty())
            break;
        const Requests requests = std::exchange(waiting_, {});
        busy_since_ = Clock::now();
        in_work_ = &requests;
        lock.unlock();
        carry_out(requests);
        lock.lock();
        in_work_ = nullptr;
        busy_since_.reset();
    }
    has_ended_ = true;
    ended_.notify_one();
}

void LocalWriter::carry_out(const Requests &requests)
{
    must_notify_ = false;
    for (const auto &[name, request] : requests) {
        if (request.write)
            write(name, *request.write);
        else if (request.quality)
            set_quality_now(name, *request.quality);
        else
            drop_now(name, request.left_over);
    }
    if (must_notify_)
        (void)kp_tag_notify(handle_);
}

void LocalWriter::close_own(const std::string &tag)
{
    const auto own = own_.find(tag);
    if (own == own_.end())
        return;
    (void)kp_tag_destroy(handle_, own->second.tag);
    own_.erase(own);
}

void LocalWriter::drop_now(const std::string &name, bool left_over)
{
    const std::string tag = reader_.standing_for(name);
    close_own(tag);
    take_value_out(tag, left_over);
    made_.remove_of(tag);
    brought_.forget(tag);
    const std::lock_guard lock(mutex_);
    dropping_.erase(name);
}

void LocalWriter::set_quality_now(const std::string &name, uint8_t quality)
{
    const std::string tag = reader_.standing_for(name);
    WriteRequest request;
    if (reader_.read(tag, request.sample) != ReadOutcome::read)
        return;
    const auto key = key_of(tag, request.sample);
    if (!key || request.sample.quality == quality)
        return;
    request.sample.quality = quality;
    request.is_declared = true;
    request.key = *key;
    (void)write_tag(tag, request);
}

// A new provider's tag has no value. That of others who provide it stays.
void LocalWriter::take_value_out(const std::string &tag, bool left_over)
{
    Sample sample;
    if (reader_.read(tag, sample) != ReadOutcome::read || !sample.has_value ||
        (sample.providers > 0 && !left_over) || !(left_over || key_of(tag, sample)))
        return;
    kp_tag_t *emptied =
        kp_tag_provider_new(handle_, tag.c_str(), sample.type, sample.max_size, sample.extra_info);
    if (emptied)
        (void)kp_tag_destroy(handle_, emptied);
}

void LocalWriter::write(const std::string &name, const WriteRequest &request)
{
    const auto moving = make_room(name);
    const bool done = write_in_place(name, request);
    // It goes where it fits now: beside the new tag, or to its old place if that one was not made.
    const bool moved = moving && write_in_place(moving->name, moving->request);
    // In a shared tree the topic may have been cleared with the old tag, and must get its value
    // again.
    if (moved)
        forget(reader_.standing_for(moving->name));
    if (done)
        counters_.in += request.messages;
    else
        ++counters_.refused;
    tell(request.when_done,
         done ? "" : "the tag cannot be written; the log of the bridge says more");
}

// Removes a tag with a value whose name is the directory of another tag. It must be a tag that the
// bridge alone has open, since others would go on with a file that is gone.
std::optional<LocalWriter::Moving> LocalWriter::make_room(const std::string &name)
{
    if (tool::place_of(name) != tool::Place::below_a_topic)
        return {};
    std::string above = name;
    while (tool::place_of(above) == tool::Place::below_a_topic)
        above.resize(above.rfind('/'));
    const auto own = own_.find(above);
    Sample sample;
    if (own == own_.end() || reader_.read(above, sample) != ReadOutcome::read ||
        sample.providers != 1 || sample.consumers != 0 || !sample.has_value)
        return {};
    close_own(above);
    WriteRequest request;
    request.sample = std::move(sample);
    return Moving{above, std::move(request)};
}

bool LocalWriter::write_in_place(const std::string &name, const WriteRequest &request)
{
    if (tool::place_of(name) == tool::Place::below_a_topic) {
        log_bounded(About::writing,
                    "the tag " + tool::escaped(name) +
                        " cannot be written: a part of its name is a tag with a value that "
                        "others use");
        return false;
    }
    const std::string tag = reader_.standing_for(name);
    const bool done = write_tag(tag, request);
    if (!done)
        log(Level::warning,
            "the tag " + tool::escaped(tag) + " cannot be written; see the line above");
    return done;
}

bool LocalWriter::write_tag(const std::string &tag, const WriteRequest &request)
{
    if (!may_write(tag, request)) {
        ++counters_.echoes;
        return true;
    }
    brought_.begin(tag, request.sample, request.key);
    const bool done = write_value(tag, request);
    Sample current;
    const bool was_read = reader_.read(tag, current) == ReadOutcome::read;
    brought_.complete(tag, was_read ? &current : nullptr);
    return done;
}

bool LocalWriter::may_write(const std::string &tag, const WriteRequest &request) const
{
    if (!request.only_over)
        return true;
    Sample current;
    const ReadOutcome outcome = reader_.read(tag, current);
    if (outcome != ReadOutcome::read)
        return outcome != ReadOutcome::busy;
    const ValueMark stands = mark_of(current);
    return !stands.has_value || stands == *request.only_over || key_of(tag, current);
}

bool LocalWriter::write_value(const std::string &tag, const WriteRequest &request)
{
    const Sample &sample = request.sample;
    const auto size = static_cast<uint32_t>(sample.value.size());
    if (request.is_declared && !own_.contains(tag)) {
        if (kp_tag_instant_write(handle_, tag.c_str(), sample.value.data(), sample.type, size,
                                 sample.quality, sample.source_ts, sample.extra_info) != 0)
            return false;
        must_notify_ = false; // its notice has told of all that was written before
        return true;
    }
    kp_tag_t *provided = provider(tag, request);
    if (!provided || kp_tag_write_with_source_params(handle_, provided, sample.value.data(), size,
                                                     sample.quality, sample.source_ts) < 0)
        return false;
    must_notify_ = true;
    return true;
}

kp_tag_t *LocalWriter::provider(const std::string &tag, const WriteRequest &request)
{
    if (const auto own = own_.find(tag); own != own_.end()) {
        if (own->second.type == request.sample.type)
            return own->second.tag;
        close_own(tag); // it was made anew with another type
    }
    made_.note(tag);
    kp_tag_t *made = kp_tag_provider_new(handle_, tag.c_str(), request.sample.type,
                                         request.sample.max_size, request.sample.extra_info);
    if (made)
        own_[tag] = {made, request.sample.type};
    return made;
}

} // namespace kp::mqtt
