#include "soak/course.h"

#include <cstdio>

namespace soak {

void Course::fail(const std::string &what)
{
    std::printf("FAILED: %s\n", what.c_str());
    ++failures;
}

int Course::pick(int below)
{
    return static_cast<int>(dice_() % static_cast<unsigned>(below));
}

void Course::end(int number, int signal)
{
    const std::string problem = family.end(number, signal);
    if (!problem.empty())
        fail("member " + std::to_string(number) + problem);
}

} // namespace soak
