// All checks at once: what `kp doctor` prints and the page shows.
#pragma once

#include "common/dictionary/dictionary.h"
#include "common/doctor/finding.h"

namespace kp::tool {

struct Checkup {
    Findings findings; // the gravest first
    std::size_t endpoints = 0;
    std::size_t topics = 0;
};

// `mistakes` are those in the files that say what tags mean.
Checkup make_checkup(const std::vector<DictionaryProblem> &mistakes);

} // namespace kp::tool
