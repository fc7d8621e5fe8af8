// kp doctor: finds what is wrong and says what mends it.
#include "commands/commands.h"
#include "common/doctor/checkup.h"
#include "output/output.h"
#include "output/program_dictionary.h"
#include "output/row_format.h"

#include <memory>
#include <nlohmann/json.hpp>

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
    const Checkup checkup = make_checkup(dictionary_problems());
    for (const Finding &finding : checkup.findings)
        if (json)
            output().write(json_line(finding_json(finding)));
        else
            print_finding(finding);
    const int code = code_of(checkup.findings);
    if (code == kDone && !json)
        output().line("healthy: " + std::to_string(checkup.topics) + " topics, " +
                      std::to_string(checkup.endpoints) + " endpoints");
    return code;
}

} // namespace

void add_doctor(Commands &commands)
{
    const auto json = std::make_shared<bool>(false);
    Command command = commands.add("doctor", "find what is wrong, and the command that mends it",
                                   [json] { return run_doctor(*json); });
    command.add_flag("-j,--json", *json, "one JSON object a finding");
}

} // namespace kp::tool
