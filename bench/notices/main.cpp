// Times how long a changed value takes to another process's callback (`latency`), to many
// (`fanout`), and what opening costs (`footprint`); prints JSON rows.
#include "notices/measure.h"
#include "support/collect.h"

#include <cstdio>
#include <iostream>
#include <string_view>

namespace bench {

namespace {

constexpr std::array<unsigned, 6> kReceivers{1, 2, 4, 8, 16, kMostReceivers};

void append(nlohmann::json &rows, const std::function<void(nlohmann::json &)> &measure)
{
    for (nlohmann::json &row : collect_in_child(measure))
        rows.push_back(std::move(row));
}

void add_latency(const NoticeContestant &contestant, nlohmann::json &rows)
{
    for (const Placement placement : kPlacements)
        append(rows, [&](nlohmann::json &own) { measure_latency(contestant, placement, own); });
}

void add_fanout(const NoticeContestant &contestant, nlohmann::json &rows)
{
    const auto add = [&](Placement placement, unsigned receivers) {
        append(rows,
               [&](nlohmann::json &own) { measure_fanout(contestant, placement, receivers, own); });
    };
    for (const unsigned receivers : kReceivers)
        add(Placement::free, receivers);
    // The goal holds wherever the processes stand.
    add(Placement::one_cpu, kMostReceivers);
    add(Placement::two_cpus, kMostReceivers);
}

int run(std::string_view what)
{
    nlohmann::json rows = nlohmann::json::array();
    for (const NoticeContestant &contestant : notice_contestants()) {
        if (what == "latency")
            add_latency(contestant, rows);
        else if (what == "fanout")
            add_fanout(contestant, rows);
        else if (what == "footprint")
            append(rows, [&](nlohmann::json &own) { measure_footprint(contestant, own); });
        else {
            std::fputs("usage: notice-CONTESTANT latency|fanout|footprint\n", stderr);
            return 2;
        }
    }
    std::cout << rows.dump(1) << "\n";
    return 0;
}

} // namespace

} // namespace bench

int main(int argc, char **argv)
{
    return bench::run(argc == 2 ? argv[1] : "");
}
