#include "common/doctor/finding.h"

#include <nlohmann/json.hpp>

namespace kp::tool {

const char *severity_name(Severity severity)
{
    return severity == Severity::error     ? "error"
           : severity == Severity::warning ? "warning"
                                           : "note";
}

nlohmann::ordered_json finding_json(const Finding &finding)
{
    return {{"level", severity_name(finding.severity)},
            {"check", finding.check},
            {"subject", finding.subject},
            {"text", finding.text},
            {"fix", finding.fix}};
}

} // namespace kp::tool
