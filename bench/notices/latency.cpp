// Measures the time from before the send to the callback that holds the value, with one receiver:
// once with values sent as fast as the receiver takes them, and once with 1,000 a second.
#include "notices/measure.h"

#include "notices/session.h"
#include "support/clock.h"

namespace bench {

namespace {

constexpr unsigned kRounds = 12;
constexpr unsigned kExchanges = 150; // with each side in a round
constexpr uint64_t kMostNs = 1'200'000'000;
constexpr unsigned kPaced = 1000;
constexpr uint64_t kPaceNs = 1'000'000;

// All delays, and the quotients of each round's p50 and p99.
struct Delays {
    std::vector<double> own;
    std::vector<double> limit;
    std::vector<double> own_p50;
    std::vector<double> limit_p50;
    std::vector<double> own_p99;
    std::vector<double> limit_p99;

    void end_round(const std::vector<double> &own_round, const std::vector<double> &limit_round)
    {
        own.insert(own.end(), own_round.begin(), own_round.end());
        limit.insert(limit.end(), limit_round.begin(), limit_round.end());
        own_p50.push_back(median(own_round));
        limit_p50.push_back(median(limit_round));
        own_p99.push_back(quantile(own_round, 0.99));
        limit_p99.push_back(quantile(limit_round, 0.99));
    }
};

void add(std::vector<double> &delays, const std::optional<Exchange> &exchange)
{
    if (exchange)
        delays.push_back(exchange->delay_us);
}

Delays play_ping_pong(Session &session)
{
    Delays delays;
    const uint64_t end = now_ns() + kMostNs;
    for (unsigned round = 0; round < kRounds && now_ns() < end; ++round) {
        std::vector<double> own;
        std::vector<double> limit;
        for (unsigned i = 0; i < kExchanges; ++i)
            add(limit, session.exchange_limit());
        for (unsigned i = 0; i < kExchanges; ++i)
            add(own, session.exchange_own());
        delays.end_round(own, limit);
    }
    return delays;
}

// The limit and the contestant take turns, half a period apart.
Delays keep_pace(Session &session)
{
    Delays delays;
    std::vector<double> own;
    std::vector<double> limit;
    uint64_t next = now_ns() + kPaceNs;
    for (unsigned i = 0; i < kPaced; ++i) {
        sleep_until(next);
        add(limit, session.exchange_limit());
        sleep_until(next + kPaceNs / 2);
        add(own, session.exchange_own());
        next = std::max(next + kPaceNs, now_ns());
        if ((i + 1) % (kPaced / 5) == 0) {
            delays.end_round(own, limit);
            own.clear();
            limit.clear();
        }
    }
    return delays;
}

nlohmann::json row(const char *name, Placement placement, const char *pace, const Delays &delays,
                   unsigned lost)
{
    return {{"contestant", name},
            {"placement", name_of(placement)},
            {"pace", pace},
            {"own_us", summary(delays.own)},
            {"limit_us", summary(delays.limit)},
            {"ratio_p50", median_ratio(delays.own_p50, delays.limit_p50)},
            {"ratio_p99", median_ratio(delays.own_p99, delays.limit_p99)},
            {"lost", lost}};
}

} // namespace

void measure_latency(const NoticeContestant &contestant, Placement placement, nlohmann::json &rows)
{
    Session session(&contestant, placement, 1);
    const Delays ping_pong = play_ping_pong(session);
    rows.push_back(row(contestant.name, placement, "ping-pong", ping_pong, session.lost()));
    const Delays paced = keep_pace(session);
    rows.push_back(row(contestant.name, placement, "1 kHz", paced, session.lost()));
}

} // namespace bench
