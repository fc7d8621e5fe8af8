// Writes to the store what the bridge is asked to, and knows which values came from the broker. One
// thread writes; any may ask where a value came from.
//
// Topic `a` cannot be both a file and the directory of `a/b`. Its value is stored as `a/_` then.
// Which of the two a value goes to is decided here, when it is written, since the other topic can
// come in between.
#pragma once

#include "base/counters.h"
#include "base/when_done.h"
#include "shared/shared_tree.h"
#include "store/brought_values.h"
#include "store/handle_record.h"
#include "store/made_directories.h"
#include "store/sample.h"
#include "store/store_reader.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kp::mqtt {

struct WriteRequest {
    Sample sample;            // type, maximum, extra information, quality, source time, value
    bool is_declared = false; // by somebody: an instant write; else the bridge provides the tag
    unsigned messages = 0;    // how many messages it stands for; the last one has its value
    MessageKey key = 0;       // of the message, in a shared tree
    // If it is set, the value replaces only this one, or one from the broker. Any other value was
    // written here meanwhile: it is newer, stays and goes to the broker.
    std::optional<ValueMark> only_over;
    WhenDone when_done{}; // for this value, or a later one in its place
};

class StoreWriter {
  public:
    // The handle must outlive the writer, and so must the record, which may be null.
    StoreWriter(kp_t *handle, Counters &counters, HandleRecord *record);

    void write(const std::string &name, const WriteRequest &request);
    // Gives a value from the broker another quality.
    void set_quality(const std::string &name, uint8_t quality);
    // See LocalWriter::drop().
    void drop(const std::string &name, bool left_over);
    // Leaves the tag to the others who provide it.
    void give_over(const std::string &tag);
    // Tells the others on this device what was written.
    void notify();
    // The tags whose value was not written since they had a newer one by then.
    std::vector<std::string> take_outrun()
    {
        return std::exchange(outrun_, {});
    }
    bool is_left(const std::string &name) const
    {
        return record_ && record_->left().contains(reader_.standing_for(name));
    }
    // Closes all of the bridge's own tags.
    void close();

    std::optional<MessageKey> key_of(const std::string &tag, const Sample &sample) const
    {
        return brought_.key_of(tag, sample);
    }
    void forget(const std::string &tag)
    {
        brought_.forget(tag);
    }

  private:
    struct Own {
        kp_tag_t *tag;
        uint32_t type;
    };
    struct Moving {
        std::string name;
        WriteRequest request;
    };

    void take_value_out(const std::string &tag, bool left_over);
    void close_own(const std::string &tag);
    bool may_write(const std::string &tag, const WriteRequest &request) const;
    bool write_value(const std::string &tag, const WriteRequest &request);
    bool write_in_place(const std::string &name, const WriteRequest &request);
    bool write_tag(const std::string &tag, const WriteRequest &request);
    std::optional<Moving> make_room(const std::string &name);
    kp_tag_t *provider(const std::string &tag, const WriteRequest &request);

    kp_t *handle_;
    Counters &counters_;
    StoreReader reader_;
    BroughtValues brought_; // the only member that other threads use, too
    HandleRecord *const record_;
    std::unordered_map<std::string, Own> own_;
    MadeDirectories made_;
    std::vector<std::string> outrun_;
    bool must_notify_ = false; // a provider's tag was written
};

} // namespace kp::mqtt
