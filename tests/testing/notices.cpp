#include "testing/notices.h"

namespace kptest {

std::string write_notice(std::initializer_list<uint32_t> buckets)
{
    std::string notice(129, '\0');
    notice[0] = 1;
    for (const uint32_t bucket : buckets)
        notice[1 + bucket / 8] = static_cast<char>(notice[1 + bucket / 8] | 1 << bucket % 8);
    return notice;
}

std::string new_tag_notice(const std::string &topic)
{
    std::string notice = '\2' + topic.substr(0, 386);
    notice.resize(387);
    return notice;
}

} // namespace kptest
