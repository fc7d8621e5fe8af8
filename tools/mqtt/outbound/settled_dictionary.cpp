#include "outbound/settled_dictionary.h"

#include "base/log.h"

#include <algorithm>
#include <utility>

namespace kp::mqtt {

namespace {

constexpr std::size_t kMostLogged = 5; // mistakes of one reading

} // namespace

SettledDictionary::SettledDictionary(tool::DictionaryPlace place) : live_(std::move(place))
{
    log_mistakes();
}

bool SettledDictionary::look()
{
    const bool is_another = live_.refresh();
    log_mistakes();
    return std::exchange(has_changed_, is_another) && !is_another;
}

bool SettledDictionary::look_now()
{
    const bool is_another = live_.refresh();
    log_mistakes();
    return std::exchange(has_changed_, false) || is_another;
}

// Each once, and of many only the first few.
void SettledDictionary::log_mistakes()
{
    const auto mistakes = live_.take_problems();
    for (std::size_t index = 0; index < std::min(mistakes.size(), kMostLogged); ++index)
        log(Level::warning, tool::place_text(mistakes[index].place) + ": " + mistakes[index].text);
    if (mistakes.size() > kMostLogged)
        log(Level::warning, "the dictionary of tags has " +
                                std::to_string(mistakes.size() - kMostLogged) +
                                " mistakes more (kp doctor shows them)");
}

} // namespace kp::mqtt
