#include "writing/announcer.h"

#include "common/clock.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <utility>

namespace kp::web {

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kPeerWaitUs = 300'000; // for peers that have not connected yet
constexpr uint64_t kStuckUs = 5 * tool::kUsPerSecond;
constexpr std::size_t kMostWaiting = 1000;
constexpr std::chrono::seconds kJoinAgain = 1s; // at first; twice as late each time
constexpr std::chrono::seconds kJoinAgainMost = 60s;
constexpr auto kPatience = 2s; // with a peer, at the end
constexpr int kWake = SIGUSR1;

// The handler does nothing. A call that waits ends already because there is a handler without
// SA_RESTART.
void let_signal_end_waiting()
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    (void)sigaction(kWake, &action, nullptr);
}

} // namespace

Announcer::Announcer()
{
    let_signal_end_waiting();
    thread_ = std::jthread([this](const std::stop_token &stop) { work(stop); });
}

// The thread may be about to wait again when a signal comes, so it gets another one until it ends.
Announcer::~Announcer()
{
    thread_.request_stop();
    std::unique_lock lock(mutex_);
    const auto has_ended = [this] { return has_ended_; };
    if (changed_.wait_for(lock, kPatience, has_ended))
        return;
    gives_up_ = true;
    (void)std::fputs(has_tried_ ? "kp-web: warning: a peer does not read its notices; leaving "
                                  "without it\n"
                                : "kp-web: warning: leaving as soon as the device's endpoints are "
                                  "joined; each dead socket among them takes three seconds\n",
                     stderr);
    while (!changed_.wait_for(lock, 10ms, has_ended))
        (void)pthread_kill(thread_.native_handle(), kWake);
}

std::string Announcer::obstacle()
{
    std::unique_lock lock(mutex_);
    // Only the first client that asks waits a moment: joining takes three seconds for each dead
    // socket.
    const auto patience = std::exchange(join_patience_, 0ms);
    if (!changed_.wait_for(lock, patience, [this] { return has_tried_; }))
        return "the device's endpoints are still being joined; try again in a moment";
    join_patience_ = patience;
    if (!join_problem_.empty())
        return join_problem_;
    const bool is_stuck = busy_since_us_ != 0 && tool::monotonic_us() > busy_since_us_ + kStuckUs;
    if (is_stuck || waiting_.size() >= kMostWaiting)
        return "a process does not read its notices, so nobody would hear of the write; /peers "
               "shows which";
    return {};
}

void Announcer::tell(Written written)
{
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(written));
    changed_.notify_all();
}

std::vector<std::string> Announcer::take_problems()
{
    const std::lock_guard lock(mutex_);
    return std::exchange(problems_, {});
}

void Announcer::work(const std::stop_token &stop)
{
    std::unique_lock lock(mutex_);
    auto pause = kJoinAgain;
    while (!join(lock)) {
        (void)changed_.wait_for(lock, stop, pause, [] { return false; });
        if (stop.stop_requested())
            break;
        pause = std::min(2 * pause, kJoinAgainMost);
    }
    const auto has_more = [this] { return !waiting_.empty(); };
    while (changed_.wait(lock, stop, has_more) && !gives_up_)
        tell_all(lock);
    has_ended_ = true;
    changed_.notify_all();
}

bool Announcer::join(std::unique_lock<std::mutex> &lock)
{
    lock.unlock();
    tool::Problem problem;
    const bool has_joined = sender_.join(problem);
    lock.lock();
    if (!has_joined && problem.text != join_problem_)
        problems_.push_back(problem.text);
    join_problem_ = problem.text;
    has_tried_ = true;
    changed_.notify_all();
    return has_joined;
}

void Announcer::tell_all(std::unique_lock<std::mutex> &lock)
{
    const std::vector<Written> all = std::exchange(waiting_, {});
    busy_since_us_ = tool::monotonic_us();
    lock.unlock();
    tool::Problem problem;
    for (const Written &written : all)
        sender_.mark(written.topic, written.spelling, written.is_new);
    const bool is_told = sender_.send(kPeerWaitUs, problem);
    lock.lock();
    busy_since_us_ = 0;
    if (!is_told)
        problems_.push_back(problem.text);
}

} // namespace kp::web
