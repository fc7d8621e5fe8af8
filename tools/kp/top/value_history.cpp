#include "top/value_history.h"

#include "common/text/text.h"
#include "common/values/number_type.h"
#include "common/values/value_text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace kp::tool {

namespace {

constexpr std::size_t kSeconds = 60;
constexpr std::array<const char *, 8> kBlocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char *, 8> kSigns = {"_", ".", ",", "-", "~", "=", "*", "#"};

struct Range {
    double least = 0;
    double most = 0;
    std::size_t count = 0;
};

Range range_of(const std::deque<std::optional<double>> &numbers)
{
    Range range;
    for (const auto &number : numbers) {
        if (!number)
            continue;
        range.least = range.count == 0 ? *number : std::min(range.least, *number);
        range.most = range.count == 0 ? *number : std::max(range.most, *number);
        ++range.count;
    }
    return range;
}

} // namespace

std::optional<double> number_of(const Snapshot &snapshot)
{
    const bool is_number = is_number_type(snapshot.type) || snapshot.type == KP_TYPE_BOOLEAN;
    if (snapshot.condition != Condition::value || !is_number)
        return std::nullopt;
    const double number = as_double(snapshot.type, snapshot.bytes);
    return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

void ValueHistory::add(std::optional<double> number)
{
    numbers_.push_back(number);
    if (numbers_.size() > kSeconds)
        numbers_.pop_front();
}

std::string ValueHistory::line(std::size_t columns) const
{
    const Range range = range_of(numbers_);
    if (range.count < 2 || !(range.most > range.least))
        return "";
    const auto &signs = locale_is_utf8() ? kBlocks : kSigns;
    std::string line;
    const std::size_t first = numbers_.size() - std::min(columns, numbers_.size());
    for (std::size_t index = first; index < numbers_.size(); ++index) {
        // Halved, since the greatest less the least can be more than a double holds.
        const double share = numbers_[index] ? (*numbers_[index] / 2 - range.least / 2) /
                                                   (range.most / 2 - range.least / 2)
                                             : 0;
        const auto level = static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * 7.99);
        line += numbers_[index] ? signs[level] : " ";
    }
    return line;
}

std::string ValueHistory::range_text() const
{
    const Range range = range_of(numbers_);
    std::array<char, 96> text{};
    if (range.count > 0)
        (void)std::snprintf(text.data(), text.size(), "from %.6g to %.6g in the last %zus",
                            range.least, range.most, numbers_.size());
    return text.data();
}

} // namespace kp::tool
