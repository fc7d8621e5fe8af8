// The mistakes in the files that say what tags mean.
#include "common/doctor/finding.h"

#include "common/dictionary/entry.h"

namespace kp::tool {

void check_dictionary(const std::vector<DictionaryProblem> &mistakes, Findings &findings)
{
    for (const DictionaryProblem &mistake : mistakes)
        findings.push_back(
            {Severity::warning, "dictionary", place_text(mistake.place), mistake.text, ""});
}

} // namespace kp::tool
