#include "http/answer.h"

#include "common/values/row_json.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

namespace kp::web {

Answer failure(unsigned status, const std::string &why)
{
    Answer answer;
    answer.status = status;
    answer.type = "application/json";
    answer.body = tool::json_line({{"error", why}});
    return answer;
}

std::span<char> Outflow::move_to(std::span<char> room)
{
    if (!text_)
        return room;
    const std::size_t size = std::min(text_->size() - sent_, room.size());
    std::memcpy(room.data(), text_->data() + sent_, size);
    sent_ += size;
    if (sent_ == text_->size())
        text_.reset();
    return room.subspan(size);
}

} // namespace kp::web
