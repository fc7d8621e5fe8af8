#include "status_tags.h"

#include "common/names/topic_name.h"
#include "names/topic_names.h"

namespace kp::mqtt {

void StatusTags::show(const Status &status, const Counters &counters)
{
    show("connected", KP_TYPE_BOOLEAN, std::string(1, status.connected ? '\1' : '\0'));
    show("topics", status.topics);
    show("unheard", status.unheard);
    show("pending", status.pending);
    show("oldest-unsent-ms", status.oldest_unsent_ms);
    show("out", counters.out);
    show("in", counters.in);
    show("refused", counters.refused);
    show("echoes", counters.echoes);
    show("empty", counters.empty);
    show("reconnects", counters.reconnects);
    show(kHeartbeat, kp_get_timestamp_us());
}

void StatusTags::show(const char *name, uint64_t number)
{
    show(name, KP_TYPE_UINT64, std::string(reinterpret_cast<const char *>(&number), sizeof number));
}

void StatusTags::show(const char *name, uint32_t type, std::string bytes)
{
    const auto shown = shown_.find(name);
    if (shown != shown_.end() && shown->second == bytes)
        return;
    shown_[name] = bytes;
    WriteRequest request;
    request.sample.type = type;
    request.sample.max_size = static_cast<uint32_t>(bytes.size());
    request.sample.quality = KP_QUALITY_GOOD;
    request.sample.source_ts = kp_get_timestamp_us();
    request.sample.value = std::move(bytes);
    writer_.put(tool::join_levels(prefix_, name), std::move(request));
}

} // namespace kp::mqtt
