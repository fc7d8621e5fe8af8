#include "common/doctor/checkup.h"

#include <algorithm>

namespace kp::tool {

Checkup make_checkup(const std::vector<DictionaryProblem> &mistakes)
{
    Checkup checkup;
    check_system(checkup.findings);
    checkup.endpoints = check_mesh(checkup.findings);
    checkup.topics = check_store(checkup.findings);
    check_dictionary(mistakes, checkup.findings);
    std::ranges::stable_sort(checkup.findings, std::ranges::greater(), &Finding::severity);
    return checkup;
}

} // namespace kp::tool
