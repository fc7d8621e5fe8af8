#include "store/store_writer.h"

#include "base/log.h"
#include "common/text/text.h"
#include "names/topic_names.h"

namespace kp::mqtt {

StoreWriter::StoreWriter(kp_t *handle, Counters &counters, HandleRecord *record)
    : handle_(handle), counters_(counters), record_(record)
{
}

void StoreWriter::close()
{
    while (!own_.empty())
        close_own(std::string(own_.begin()->first)); // a copy, since the entry holds the name
    made_.remove_all();
}

void StoreWriter::notify()
{
    if (std::exchange(must_notify_, false))
        (void)kp_tag_notify(handle_);
}

void StoreWriter::close_own(const std::string &tag)
{
    const auto own = own_.find(tag);
    if (own == own_.end())
        return;
    (void)kp_tag_destroy(handle_, own->second.tag);
    own_.erase(own);
    if (record_)
        record_->remove(tag);
}

void StoreWriter::give_over(const std::string &tag)
{
    close_own(tag);
    brought_.forget(tag);
}

void StoreWriter::drop(const std::string &name, bool left_over)
{
    const std::string tag = reader_.standing_for(name);
    close_own(tag);
    take_value_out(tag, left_over);
    made_.remove_of(tag);
    brought_.forget(tag);
}

void StoreWriter::set_quality(const std::string &name, uint8_t quality)
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

// Takes the value out by declaring the tag anew. Keeps it while others provide the tag; the count
// that a killed run has left does not matter.
void StoreWriter::take_value_out(const std::string &tag, bool left_over)
{
    const uint32_t killed = record_ && record_->left().contains(tag) ? 1 : 0;
    Sample sample;
    if (reader_.read(tag, sample) != ReadOutcome::read || !sample.has_value ||
        (sample.providers > killed && !left_over) || !(left_over || key_of(tag, sample)))
        return;
    kp_tag_t *emptied =
        kp_tag_provider_new(handle_, tag.c_str(), sample.type, sample.max_size, sample.extra_info);
    if (emptied)
        (void)kp_tag_destroy(handle_, emptied);
}

void StoreWriter::write(const std::string &name, const WriteRequest &request)
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
std::optional<StoreWriter::Moving> StoreWriter::make_room(const std::string &name)
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

bool StoreWriter::write_in_place(const std::string &name, const WriteRequest &request)
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

bool StoreWriter::write_tag(const std::string &tag, const WriteRequest &request)
{
    if (!may_write(tag, request)) {
        ++counters_.echoes;
        outrun_.push_back(tag);
        return true;
    }
    brought_.begin(tag, request.sample, request.key);
    const bool done = write_value(tag, request);
    Sample current;
    const bool was_read = reader_.read(tag, current) == ReadOutcome::read;
    brought_.complete(tag, was_read ? &current : nullptr);
    return done;
}

bool StoreWriter::may_write(const std::string &tag, const WriteRequest &request) const
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

bool StoreWriter::write_value(const std::string &tag, const WriteRequest &request)
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

kp_tag_t *StoreWriter::provider(const std::string &tag, const WriteRequest &request)
{
    if (const auto own = own_.find(tag); own != own_.end()) {
        if (own->second.type == request.sample.type)
            return own->second.tag;
        close_own(tag); // it was made anew with another type
    }
    made_.note(tag);
    if (record_)
        record_->add(tag);
    kp_tag_t *made = kp_tag_provider_new(handle_, tag.c_str(), request.sample.type,
                                         request.sample.max_size, request.sample.extra_info);
    if (made)
        own_[tag] = {made, request.sample.type};
    else if (record_)
        record_->remove(tag);
    return made;
}

} // namespace kp::mqtt
