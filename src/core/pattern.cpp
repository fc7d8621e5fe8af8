#include "core/pattern.h"

#include "support/path.h"

#include <cstring>
#include <string_view>

namespace kp {

namespace {

// Hands out the levels of a text between its slashes; an empty level stands for the end.
class Levels {
  public:
    // A text that is too long for a path is cut, as a path is that is made from it.
    explicit Levels(const char *text) : rest_(text, strnlen(text, kPathSize - 1))
    {
    }

    std::string_view next()
    {
        while (!rest_.empty() && rest_.front() == '/')
            rest_.remove_prefix(1);
        const std::string_view level = rest_.substr(0, rest_.find('/'));
        rest_.remove_prefix(level.size());
        return level;
    }

  private:
    std::string_view rest_;
};

} // namespace

int topic_match(const char *pattern, const char *topic)
{
    Levels wanted(pattern);
    Levels given(topic);
    for (;;) {
        const std::string_view want = wanted.next();
        const std::string_view have = given.next();
        if (want.empty() || have.empty())
            return want.empty() && have.empty() ? 1 : 0;
        if (want.front() == '#')
            return 1;
        if (want.front() != '+' && want != have)
            return 0;
    }
}

bool is_pattern(const char *text)
{
    return std::strpbrk(text, "+#") != nullptr;
}

} // namespace kp
