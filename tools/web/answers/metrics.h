// Makes the metrics of the device and of this program, as OpenMetrics text.
#pragma once

#include "answers/site.h"

namespace kp::web {

constexpr const char *kMetricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";

// Gives the values of the topics that the patterns cover, the state of the store, and the program's
// counters. The line that ends the text is not in it.
std::string metrics_text(const std::vector<std::string> &patterns, const Board &board,
                         const Counters &counters, uint64_t writes);

} // namespace kp::web
