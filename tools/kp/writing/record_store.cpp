#include "writing/record_store.h"

#include "writing/remedies.h"

namespace kp::tool {

bool store_record(const Record &record, NoticeSender &sender, Problem &problem)
{
    Write write = record.write;
    write.remedies = kRemedies;
    const auto target = find_target(write, problem);
    if (!target)
        return false;
    std::optional<std::string> bytes;
    if (record.bytes || !record.value.is_null()) {
        bytes = record_bytes(record, target->type, problem);
        if (!bytes)
            return false;
    }
    if (!store_value(write, *target, bytes, problem))
        return false;
    if (bytes || target->is_new)
        sender.mark(write.topic, write.spelling, target->is_new);
    return true;
}

} // namespace kp::tool
