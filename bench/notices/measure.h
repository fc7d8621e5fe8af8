// The three measurements of a notice contestant. Each adds its rows to the results.
#pragma once

#include "notices/channels/channel.h"
#include "support/placement.h"
#include "support/summary.h"

namespace bench {

void measure_latency(const NoticeContestant &contestant, Placement placement, nlohmann::json &rows);
void measure_fanout(const NoticeContestant &contestant, Placement placement, unsigned receivers,
                    nlohmann::json &rows);
void measure_footprint(const NoticeContestant &contestant, nlohmann::json &rows);

} // namespace bench
