#include "writing/record_store.h"

namespace kp::tool {

bool store_record(const Record &record, NoticeSender &sender, Problem &problem)
{
    const auto target = find_target(record.write, problem);
    if (!target)
        return false;
    std::optional<std::string> bytes;
    if (record.bytes || !record.value.is_null()) {
        bytes = record_bytes(record, target->type, problem);
        if (!bytes)
            return false;
    }
    if (!store_value(record.write, *target, bytes, problem))
        return false;
    if (bytes || target->is_new)
        sender.mark(record.write.topic, record.write.spelling, target->is_new);
    return true;
}

} // namespace kp::tool
