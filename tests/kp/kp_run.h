// Runs `kp` as a process, and writes the topics that its tests look at.
#pragma once

#include "kp.h"
#include "testing/bytes.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kptest {

struct Ran {
    int code = -1; // 128 plus the signal's number when one killed it
    std::string out;
    std::string err;
};

struct RunOptions {
    std::string input = {};
    std::vector<std::string> environment = {}; // "NAME=value", beside a plain locale
    uid_t uid = 0;                             // 0 stands for the user of the test
    std::string output_file = {};              // instead of the pipe
    std::size_t close_output_after = 0;        // bytes after which the reader goes; 0: never
};

Ran run_program(const std::vector<std::string> &command, const RunOptions &options = {});

// Gives the path of `kp` for a user, 0 for that of the test. Another user runs a copy with its
// library, since the folder of the build may be open to its owner alone.
const std::string &program_for(uid_t user);

// Runs `kp` with these arguments.
Ran kp(const std::vector<std::string> &arguments, const RunOptions &options = {});

// Gives what `doctor -j` found, in one line for each finding: `keys` are put into "\(.level) KEYS".
// It leaves out notes, and processes that are short of inotify instances, since the whole machine
// shares these and tests run beside.
std::string findings_of(const Ran &doctor, const std::string &keys);

// Gives what a program prints that reads `input`. Fails when the program fails or complains.
std::string filtered(const std::string &input, const std::vector<std::string> &command);

// A time that never passes while a test runs, so that what is printed of it stays the same.
constexpr uint64_t kFutureUs = 4'102'444'800'123'456; // 2100-01-01T00:00:00.123456Z

// Gives a process as the tool shows it, by number and program. One that is emulated has the name of
// the emulator.
std::string shown(pid_t pid);

// Writes a topic by an instant write, with quality 1 and kFutureUs as both of its times.
void put(const std::string &topic, uint32_t type, const std::string &bytes);
void put_double(const std::string &topic, double value);
void put_text(const std::string &topic, const std::string &text);

// Gives every file and directory of the store with its bytes, mode, size and times of change, and
// what lies in /run/providers.
std::string store_picture();

// Leaves sockets that nobody answers in /run/providers. Who joins the mesh then tries each of them
// for three seconds.
void leave_dead_sockets(int count);

// A change callback for handles whose notices do not matter.
int ignore_notice(kp_t *handle, const kp_write_info *notice, void *user_data);

// A process of the test's own. If it still runs when the object ends, it is killed.
class OwnProcess {
  public:
    OwnProcess(const OwnProcess &) = delete;
    OwnProcess &operator=(const OwnProcess &) = delete;

    void signal(int number) const;
    // Gives the status as wait(2) does, or nothing when the process does not end.
    std::optional<int> status();
    bool dies_of(int number);

  protected:
    OwnProcess() = default;
    ~OwnProcess();

    // Forks. In the child `become` executes a program.
    void start(const std::function<void()> &become);
    pid_t pid() const
    {
        return pid_;
    }

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Gives a user without rights; 0 when this test cannot become one.
uid_t other_user();

} // namespace kptest
