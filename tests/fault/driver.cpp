#include "fault/driver.h"

#include "kp.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

extern "C" {
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();
}

namespace fs = std::filesystem;
using namespace kptest;

namespace kpfault {

namespace {

constexpr std::chrono::seconds kMostTime{8}; // three tries of a connection take three seconds
constexpr std::chrono::milliseconds kSettling{50};
constexpr std::chrono::milliseconds kPatienceWithFault{300};
// A peer that was just connecting to what is gone keeps trying for three seconds.
constexpr std::chrono::milliseconds kStateDeadline{8000};
constexpr unsigned kHangSeconds = 60;
constexpr long kMostPoints = 2000; // no operation makes so many calls

const Shim *armed = nullptr;

// The calls that fail together, and their error.
struct Kind {
    const char *name;
    CallSet calls;
    int error;
    bool for_ever;
};

// With many errors of every call on the thread that runs the operation. Where the threads of the
// handles take part, which makes a point slow, each call has its usual error, and those that a
// thread waits and works with have others beside it. A connection that fails for ever is retried
// for three seconds, a semaphore for one, and a wait for events that does so burns the processor.
std::vector<Kind> kinds(bool has_threads)
{
    if (has_threads)
        return {{"each call once", kFallibleCalls, kUsualError, false},
                {"EBADF once", {Call::epoll_wait, Call::recv, Call::send}, EBADF, false},
                {"ENOMEM once", {Call::epoll_wait, Call::accept4, Call::recv}, ENOMEM, false},
                {"EAGAIN once", {Call::accept4, Call::recv, Call::read}, EAGAIN, false}};
    const CallSet slow{Call::connect, Call::epoll_wait, Call::sem_clockwait};
    std::vector<Kind> all{
        {"each call once", kFallibleCalls, kUsualError, false},
        {"each call and all after it", kFallibleCalls.without(slow), kUsualError, true}};
    const CallSet others = kFallibleCalls.without({Call::connect, Call::epoll_wait});
    for (const int error : {EINTR, EAGAIN, ENOMEM, ENOSPC, EACCES, EBADF, EIO})
        all.push_back({strerrorname_np(error), others, error, false});
    return all;
}

// What must be as it was. Descriptors are told by what they refer to, since numbers are given out
// anew.
struct State {
    std::multiset<std::string> descriptors;
    int threads = 0;
    int mappings = 0;
    long blocks = 0;

    bool operator==(const State &) const = default;

    static State now()
    {
        State state{{}, thread_count(), mapping_count(), live_blocks()};
        for (const auto &[fd, file] : open_descriptors())
            state.descriptors.insert(file.substr(0, file.find_last_of("[")));
        return state;
    }
    // Gives the state once the threads of the handles have come to their first wait.
    static State settled()
    {
        State state;
        (void)wait_until([&] {
            const State before = std::exchange(state, now());
            std::this_thread::sleep_for(kSettling);
            return before == state;
        });
        return state;
    }
};

// What a log line says when this call has made an operation fail; the empty text stands for no line
// at all. An operation may fail with anything else only on a call that is not named here.
struct Message {
    Call call;
    std::vector<std::string> texts;
};

const std::vector<Message> &messages()
{
    static const std::vector<Message> all{
        {Call::syscall,
         {"open shm(increase 'ulimit -n'): ", "create fail", ""}},               // a list is silent
        {Call::openat, {"open shm(increase 'ulimit -n'): ", "create fail", ""}}, // so is it here
        {Call::ftruncate, {"ftruncate: "}},
        {Call::fallocate, {"ftruncate: "}},
        {Call::mmap, {"mmap: "}},
        {Call::munmap, {"munmap: "}},
        {Call::sem_init, {"sem_open: "}},
        {Call::pipe2, {"Pipe Failed: ", "new_server_fds pipe failed: "}},
        {Call::socket, {"opening socket: "}},
        {Call::bind, {"binding name to socket: "}},
        {Call::listen, {"listen(): "}},
        {Call::connect,
         {"failed, remove it", "timed out", ""}}, // a first failure is retried silently
        {Call::fcntl, {"NONBLOCK(): "}},
        {Call::epoll_create1, {"epoll_create1 failed"}},
        {Call::epoll_ctl, {"epoll_ctl(EPOLL_CTL_"}},
        {Call::epoll_wait, {"epoll_wait interrupted", "epoll_wait failed"}},
        {Call::eventfd, {"eventfd: "}},
        {Call::inotify_init1, {"add_watch_topic failed"}},
        {Call::inotify_add_watch, {"add_watch_topic failed"}},
        {Call::pthread_create, {"init server failed", "client failed"}},
        {Call::opendir, {"client failed", ""}},
        {Call::strdup, {"malloc", ""}},
        {Call::send, {"send failed: "}},
        {Call::write,
         {"write new server fd failed", "write cancel fd failed", "write notice fd failed"}},
        {Call::read,
         {"read new server fd failed", "read cancel fd failed", "read notice fd failed", ""}}};
    return all;
}

bool has_a_text_of(const Message &message, const std::string &log)
{
    return std::ranges::any_of(message.texts, [&](const std::string &text) {
        return text.empty() ? log.empty() : log.find(text) != std::string::npos;
    });
}

bool is_explained(Call call, const std::string &log)
{
    const auto own = std::ranges::find(messages(), call, &Message::call);
    return own == messages().end() || has_a_text_of(*own, log);
}

// Where all calls fail from one on, a call before the last one may have said why.
bool is_explained_by_any(const std::string &log)
{
    return std::ranges::any_of(messages(), [&](const Message &message) {
        return !log.empty() && has_a_text_of(message, log);
    });
}

// Gives everything below a directory.
std::set<std::string> files_below(const char *directory)
{
    std::set<std::string> found;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory))
        if (!entry.is_directory())
            found.insert(entry.path());
    return found;
}

// After an open that failed behind the sizing of its file, and after a close that could not reach
// it, the file stays: the next open uses it.
bool may_leave_a_segment(Call call)
{
    const CallSet opening{Call::mmap, Call::sem_init, Call::fstat};
    const CallSet closing{Call::syscall, Call::openat, Call::fstatat, Call::unlinkat};
    return opening.with(closing).has(call);
}

bool may_leave_a_socket(Call call)
{
    return CallSet{Call::listen, Call::unlink}.has(call);
}

class Point {
  public:
    Point(const Scenario &scenario, const Kind &kind, long number, State &before)
        : scenario_(scenario), kind_(kind), number_(number), before_(before)
    {
    }

    // False when the operation made fewer calls, so that none failed.
    bool run()
    {
        const std::set<std::string> files = all_files();
        {
            StderrCapture log;
            fail(log);
        }
        if (!fired_)
            return false;
        check_state();
        check_files(files);
        EXPECT_TRUE(scenario_.run()) << where() << ": does not succeed when tried again";
        return true;
    }

  private:
    static std::set<std::string> all_files()
    {
        std::set<std::string> files = files_below("/dev/shm");
        files.merge(files_below("/run"));
        return files;
    }

    template <typename Fault> void run_with(StderrCapture &log)
    {
        const auto threads = scenario_.has_threads ? Threads::all : Threads::this_one;
        const CountCalls pipes(Call::pipe2, threads);
        const CountCalls semaphores(Call::sem_init, threads);
        Fault fault(kind_.calls, number_, kind_.error, threads);
        const auto begin = std::chrono::steady_clock::now();
        armed = &fault;
        const bool succeeded = scenario_.run();
        armed = nullptr;
        const auto duration = std::chrono::steady_clock::now() - begin;
        fault.disarm();
        fired_ = fault.fired();
        pipes_ = pipes.count();
        semaphores_ = semaphores.count();
        if (!fired_) {
            EXPECT_TRUE(succeeded) << where() << ": fails without a fault: " << log.text();
            return;
        }
        call_ = fault.fired_on();
        EXPECT_LT(duration, kMostTime) << where();
        EXPECT_TRUE(succeeded || is_explained(call_, log.text()) ||
                    (kind_.for_ever && is_explained_by_any(log.text())))
            << where() << ": fails without its message: " << log.text();
    }

    void fail(StderrCapture &log)
    {
        // What a failure keeps on purpose is no leak; any other shows in the count of blocks.
        if (__lsan_disable)
            __lsan_disable();
        (void)alarm(kHangSeconds); // a hang ends the process, and so the test
        if (kind_.for_ever)
            run_with<FailFrom>(log);
        else
            run_with<FailNth>(log);
        (void)alarm(0);
        if (__lsan_enable)
            __lsan_enable();
    }

    // Two failures keep what they have on purpose: that of a pipe a block, that of a semaphore a
    // mapping. These then belong to what was before. Where all calls fail from one on, each pipe
    // and each semaphore of the operation may have been such a failure.
    void accept_what_is_kept(const State &after)
    {
        const long blocks = after.blocks - before_.blocks;
        const long mappings = after.mappings - before_.mappings;
        const long most_blocks = kind_.for_ever ? pipes_ : call_ == Call::pipe2;
        const long most_mappings = kind_.for_ever ? semaphores_ : call_ == Call::sem_init;
        if (blocks > 0 && blocks <= most_blocks)
            before_.blocks = after.blocks;
        if (mappings > 0 && mappings <= most_mappings)
            before_.mappings = after.mappings;
    }

    void check_state()
    {
        State after;
        (void)wait_until(
            [&] {
                after = State::now();
                accept_what_is_kept(after);
                return after == before_;
            },
            kStateDeadline);
        EXPECT_TRUE(after == before_)
            << where() << ": descriptors " << after.descriptors.size() << " after "
            << before_.descriptors.size() << ", threads " << after.threads << " after "
            << before_.threads << ", mappings " << after.mappings << " after " << before_.mappings
            << ", blocks " << after.blocks << " after " << before_.blocks;
    }

    void check_files(const std::set<std::string> &before) const
    {
        for (const std::string &file : all_files()) {
            if (before.contains(file))
                continue;
            const bool is_segment = file.starts_with("/dev/shm/zu-kp/");
            const bool is_socket = file.starts_with("/run/providers/");
            EXPECT_TRUE((is_segment && (may_leave_a_segment(call_) || kind_.for_ever)) ||
                        (is_socket && (may_leave_a_socket(call_) || kind_.for_ever)))
                << where() << ": left behind: " << file;
            fs::remove(file);
        }
    }

    std::string where() const
    {
        return scenario_.name + ", " + kind_.name + ", point " + std::to_string(number_) +
               (fired_ ? std::string(", ") + name_of(call_) : "");
    }

    const Scenario &scenario_;
    const Kind &kind_;
    const long number_;
    State &before_;
    bool fired_ = false;
    Call call_ = Call::malloc;
    long pipes_ = 0; // how often they were asked for
    long semaphores_ = 0;
};

long fail_every_call_of(const Scenario &scenario, const Kind &kind, State &before)
{
    long points = 0;
    while (points < kMostPoints) {
        if (!Point(scenario, kind, points + 1, before).run())
            return points;
        ++points;
        if (testing::Test::HasFailure())
            return points;
    }
    ADD_FAILURE() << scenario.name << ", " << kind.name << ": the calls don't end";
    return points;
}

} // namespace

bool wait_patiently(const std::function<bool()> &condition)
{
    const auto begin = std::chrono::steady_clock::now();
    const auto is_over = [begin] {
        return armed && armed->fired() &&
               std::chrono::steady_clock::now() - begin > kPatienceWithFault;
    };
    bool holds = false;
    (void)wait_until([&] {
        holds = condition();
        return holds || is_over();
    });
    return holds;
}

void fail_every_call(const Scenario &scenario)
{
    kp_xlog_set_user_level(KP_LEVEL_WARN);
    long points = 0;
    scenario.set_up();
    State before = State::settled();
    for (const Kind &kind : kinds(scenario.has_threads))
        points += fail_every_call_of(scenario, kind, before);
    scenario.tear_down();
    std::printf("%s: %ld points\n", scenario.name.c_str(), points);
    EXPECT_GT(points, 0);
}

} // namespace kpfault
