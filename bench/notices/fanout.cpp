// One value to many processes: what the sender pays, when the last one has it, and the processor
// time of all together, beside as many bare sends.
#include "notices/measure.h"

#include "notices/session.h"
#include "support/clock.h"

namespace bench {

namespace {

constexpr unsigned kRounds = 10;
constexpr unsigned kExchanges = 10; // with each side in a round
constexpr uint64_t kMostNs = 400'000'000;

struct Figures {
    std::vector<double> delay_us;
    std::vector<double> cost_us;
    std::vector<double> cpu_us; // of one exchange, in each round
    std::vector<double> round_delay_us;
};

template <typename Exchanging>
void play_round(const Session &session, Figures &figures, Exchanging exchange)
{
    const uint64_t cpu = session.cpu_ns();
    std::vector<double> delays;
    for (unsigned i = 0; i < kExchanges; ++i)
        if (const std::optional<Exchange> done = exchange()) {
            delays.push_back(done->delay_us);
            figures.cost_us.push_back(done->cost_us);
        }
    // What a receiver still does after its delivery belongs to the exchange.
    sleep_until(now_ns() + 300'000);
    figures.cpu_us.push_back(static_cast<double>(session.cpu_ns() - cpu) / 1000 / kExchanges);
    figures.delay_us.insert(figures.delay_us.end(), delays.begin(), delays.end());
    figures.round_delay_us.push_back(median(delays));
}

nlohmann::json to_json(const Figures &figures)
{
    return {{"delay_us", summary(figures.delay_us)},
            {"send_us", summary(figures.cost_us)},
            {"cpu_us", rounded(median(figures.cpu_us))}};
}

} // namespace

void measure_fanout(const NoticeContestant &contestant, Placement placement, unsigned receivers,
                    nlohmann::json &rows)
{
    Session session(&contestant, placement, receivers);
    Figures own;
    Figures limit;
    const uint64_t end = now_ns() + kMostNs;
    for (unsigned round = 0; round < kRounds && now_ns() < end; ++round) {
        play_round(session, limit, [&] { return session.exchange_limit(); });
        play_round(session, own, [&] { return session.exchange_own(); });
    }
    rows.push_back({{"contestant", contestant.name},
                    {"placement", name_of(placement)},
                    {"receivers", receivers},
                    {"own", to_json(own)},
                    {"limit", to_json(limit)},
                    {"ratio_delay", median_ratio(own.round_delay_us, limit.round_delay_us)},
                    {"ratio_cpu", median_ratio(own.cpu_us, limit.cpu_us)},
                    {"lost", session.lost()}});
}

} // namespace bench
