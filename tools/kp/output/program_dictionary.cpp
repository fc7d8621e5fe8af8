#include "output/program_dictionary.h"

#include "common/clock.h"
#include "common/text/text.h"
#include "output/output.h"
#include "running/outcome.h"

#include <utility>

namespace kp::tool {

namespace {

constexpr std::size_t kMostTold = 5; // mistakes by a command that was not asked for them

// The program's one dictionary, and what of its mistakes was told.
class ProgramDictionary {
  public:
    explicit ProgramDictionary(const DictionaryPlace &place)
        : directory_(place.directory), live_(place), refresh_at_(monotonic_us() + kUsPerSecond)
    {
    }

    const std::string &directory() const
    {
        return directory_;
    }

    const Dictionary &told()
    {
        if (!std::exchange(is_told_, true))
            tell_mistakes(live_.take_problems());
        return *live_.current();
    }

    Reread refresh()
    {
        const uint64_t now = monotonic_us();
        if (now < refresh_at_)
            return {};
        refresh_at_ = now + kUsPerSecond;
        const bool is_new = live_.refresh();
        return {is_new, live_.take_problems()};
    }

    std::vector<DictionaryProblem> take_problems()
    {
        is_told_ = true;
        return live_.take_problems();
    }

  private:
    std::string directory_;
    LiveDictionary live_;
    uint64_t refresh_at_;
    bool is_told_ = false;
};

std::string &chosen_directory()
{
    static std::string directory;
    return directory;
}

ProgramDictionary &program_dictionary()
{
    static ProgramDictionary program(dictionary_place(chosen_directory()));
    return program;
}

} // namespace

void choose_dictionary(const std::string &option)
{
    chosen_directory() = option;
}

const std::string &dictionary_directory()
{
    return program_dictionary().directory();
}

const Dictionary &dictionary()
{
    return program_dictionary().told();
}

Reread refresh_dictionary()
{
    return program_dictionary().refresh();
}

void tell_mistakes(const std::vector<DictionaryProblem> &mistakes)
{
    for (std::size_t index = 0; index < std::min(mistakes.size(), kMostTold); ++index)
        complain(place_text(mistakes[index].place) + ": " + mistakes[index].text);
    if (mistakes.size() > kMostTold)
        complain(escaped(dictionary_directory()) + ": " +
                 std::to_string(mistakes.size() - kMostTold) +
                 " mistakes more (kp doctor shows them)");
}

std::vector<DictionaryProblem> dictionary_problems()
{
    return program_dictionary().take_problems();
}

Meaning meaning_of(const std::string &topic, const Snapshot &snapshot)
{
    return dictionary().is_empty() ? Meaning() : meaning_of(dictionary(), topic, snapshot);
}

std::string colored_by_state(const std::string &text, const Meaning &meaning)
{
    switch (meaning.state.value_or(ValueState::ok)) {
    case ValueState::lowlow:
    case ValueState::highhigh:
        return colored(text, Color::red);
    case ValueState::bad_quality:
    case ValueState::low:
    case ValueState::high:
        return colored(text, Color::yellow);
    case ValueState::stale:
        return colored(text, Color::dim);
    case ValueState::ok:
        break;
    }
    return text;
}

} // namespace kp::tool
