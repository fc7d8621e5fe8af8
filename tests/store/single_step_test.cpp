// One writer and one reader, interleaved instruction by instruction: one of them is a process that
// is stepped through its work, and the other one does a whole piece of its own between two
// instructions.
#include "store/opened_segment.h"
#include "value/consistent.h"

#include "kp.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace kptest;

namespace {

constexpr uint32_t kStepSize = 48;
constexpr int kMostSteps = 20'000; // of one write or read; a few hundred without a sanitizer

using Bytes = std::vector<uint8_t>;

void write_number(kp_shm_t *shm, uint8_t number)
{
    const Bytes value(kStepSize, number);
    (void)kp_shm_write(shm, value.data(), kStepSize, 1000 + number, number, number);
}

// What a read gives, kept apart from the judgement of it, so that only the read is stepped through.
struct Given {
    Bytes value = Bytes(kStepSize);
    int32_t size = -1;
    uint8_t quality = 0;
    uint64_t source_ts = 0;

    void read(kp_shm_t *shm)
    {
        size = kp::read_consistent(shm, value.data(), kStepSize, nullptr, &quality, &source_ts);
    }
    // Gives the number whose value it is, whole with all that belongs to it; 0 for a torn one, -1
    // for none.
    int number() const
    {
        if (size == -1)
            return -1;
        const bool is_whole = std::ranges::count(value, value[0]) == std::ssize(value) &&
                              quality == value[0] && source_ts == value[0];
        return is_whole ? value[0] : 0;
    }
};

int read_number(kp_shm_t *shm)
{
    Given given;
    given.read(shm);
    return given.number();
}

// A forked process that stops before its work and after it, and is stepped in between.
class SteppedProcess {
  public:
    template <typename Work, typename Result>
    SteppedProcess(Work work, Result result) : pid_(fork())
    {
        if (pid_ == 0) {
            (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            (void)raise(SIGSTOP);
            work();
            (void)raise(SIGSTOP);
            _exit(result());
        }
        started_ = wait_for_stop() == SIGSTOP;
    }
    SteppedProcess(const SteppedProcess &) = delete;
    SteppedProcess &operator=(const SteppedProcess &) = delete;
    ~SteppedProcess()
    {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }

    bool is_started() const
    {
        return started_;
    }
    // One instruction further; false when the work is done.
    bool step() const
    {
        (void)ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr);
        return wait_for_stop() == SIGTRAP;
    }
    // Lets it run to its end and gives its result.
    int finish() const
    {
        int status = 0;
        do
            (void)ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
        while (waitpid(pid_, &status, __WALL) == pid_ && WIFSTOPPED(status));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    int wait_for_stop() const
    {
        int status = 0;
        return waitpid(pid_, &status, __WALL) == pid_ && WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
    }

    pid_t pid_;
    bool started_ = false;
};

struct Interleaving {
    int steps = 0;
    int torn = 0;
    int refused = 0;
    int last_given = 0;
};

// Steps through the write of a 2 over a 1, with a read after each instruction.
Interleaving read_between_the_instructions_of_a_write(kp_shm_t *provider, kp_shm_t *consumer)
{
    Interleaving seen;
    const SteppedProcess writer([provider] { write_number(provider, 2); }, [] { return 0; });
    while (writer.is_started() && seen.steps < kMostSteps && writer.step()) {
        const int given = read_number(consumer);
        ++seen.steps;
        seen.torn += given == 0;
        seen.refused += given == -1;
        seen.last_given = given > 0 ? given : seen.last_given;
    }
    return seen;
}

// What a stepped read gives when a whole write comes after so many of its instructions; no result
// when the read was over before.
std::optional<int> read_with_a_write_after(int steps, kp_shm_t *provider, kp_shm_t *consumer)
{
    write_number(provider, 1);
    Given given;
    const SteppedProcess reader([&given, consumer] { given.read(consumer); },
                                [&given] { return given.number(); });
    for (int step = 0; step < steps; ++step)
        if (!reader.step())
            return std::nullopt;
    write_number(provider, 2);
    return reader.finish();
}

class SingleSteps : public testing::Test {
  protected:
    const DeclaredSegment provider_{"a", KP_TYPE_RAW, kStepSize};
    const OpenedSegment consumer_{"a", KP_ROLE_CONSUMER};
};

TEST_F(SingleSteps, OfAWriteNeverLetAConsistentReadBeTornOrMissTheWrite)
{
    write_number(provider_, 1);

    const Interleaving seen = read_between_the_instructions_of_a_write(provider_, consumer_);

    EXPECT_GT(seen.steps, 50);
    EXPECT_GT(seen.refused, 0);
    EXPECT_EQ(seen.torn, 0);
    EXPECT_EQ(seen.last_given, 2);
    EXPECT_EQ(kp_shm_has_read(consumer_), 1);
}

TEST_F(SingleSteps, OfAConsistentReadNeverLetItBeTornByAWrite)
{
    int ones = 0;
    int twos = 0;
    int others = 0;

    for (int steps = 1; steps < kMostSteps; steps += 7) {
        const auto given = read_with_a_write_after(steps, provider_, consumer_);
        if (!given)
            break;
        ones += given == 1;
        twos += given == 2;
        others += given != 1 && given != 2;
    }

    EXPECT_GT(ones, 0);
    EXPECT_GT(twos, 0);
    EXPECT_EQ(others, 0);
}

} // namespace
