// kp doctor: finds what is wrong and says what mends it.
#include "commands/commands.h"
#include "common/doctor/finding.h"
#include "output/meaning.h"
#include "output/output.h"
#include "output/row_format.h"

#include <algorithm>

namespace kp::tool {

namespace {

void print_finding(const Finding &finding)
{
    const char *name = severity_name(finding.severity);
    const std::string level = finding.severity == Severity::error     ? colored(name, Color::red)
                              : finding.severity == Severity::warning ? colored(name, Color::yellow)
                                                                      : colored(name, Color::dim);
    output().line(level + ": " + finding.subject + ": " + finding.text +
                  (finding.fix.empty() ? "" : "  [" + finding.fix + "]"));
}

// A finding counts more than something that could not be looked at.
int code_of(const Findings &findings)
{
    int code = kDone;
    for (const Finding &finding : findings)
        if (finding.severity != Severity::note && code != kNothing)
            code = finding.code;
    return code;
}

int run_doctor(bool json)
{
    Findings findings;
    check_system(findings);
    const std::size_t endpoints = check_mesh(findings);
    const std::size_t topics = check_store(findings);
    check_dictionary(dictionary_problems(), findings);
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding &a, const Finding &b) { return a.severity > b.severity; });
    for (const Finding &finding : findings)
        if (json)
            output().write(json_line(finding_json(finding)));
        else
            print_finding(finding);
    const int code = code_of(findings);
    if (code == kDone && !json)
        output().line("healthy: " + std::to_string(topics) + " topics, " +
                      std::to_string(endpoints) + " endpoints");
    return code;
}

} // namespace

void add_doctor(Commands &commands)
{
    const auto json = std::make_shared<bool>(false);
    CLI::App &command = commands.add("doctor", "find what is wrong, and the command that mends it",
                                     [json] { return run_doctor(*json); });
    command.add_flag("-j,--json", *json, "one JSON object a finding");
}

} // namespace kp::tool
