// Running `kp` as a process, and the topics that its tests look at.
#pragma once

#include "kp.h"
#include "testing/bytes.h"

#include <cstdint>
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
    uid_t uid = 0;                             // 0: as the test itself
    std::string output_file = {};              // instead of the pipe
    std::size_t close_output_after = 0;        // bytes after which the reader goes away; 0: never
};

Ran run_program(const std::vector<std::string> &command, const RunOptions &options = {});

// `kp` with these arguments.
Ran kp(const std::vector<std::string> &arguments, const RunOptions &options = {});

// What `doctor -j` found but for notes, a line each: `keys` are put into "\(.level) KEYS". It
// leaves out who is short of inotify instances, since these are the whole machine's, of the tests
// that run beside too.
std::string findings_of(const Ran &doctor, const std::string &keys);

// What a program prints that reads `input`; its code and messages are checked to be clean.
std::string filtered(const std::string &input, const std::vector<std::string> &command);

// A time that never passes while a test runs, so that what is printed of it stays the same.
constexpr uint64_t kFutureUs = 4'102'444'800'123'456; // 2100-01-01T00:00:00.123456Z

// A process as the tool shows it, by number and program. An emulated one has the emulator's name.
std::string shown(pid_t pid);

// Writes a topic by an instant write, with quality 1 and kFutureUs as both of its times.
void put(const std::string &topic, uint32_t type, const std::string &bytes);
void put_double(const std::string &topic, double value);
void put_text(const std::string &topic, const std::string &text);

// Every file and directory of the store with its bytes, mode, size and times of change, and what
// lies in /run/providers.
std::string store_picture();

// A change callback for handles whose notices do not matter.
int ignore_notice(kp_t *handle, const kp_write_info *notice, void *user_data);

// A user without rights; 0 when this test cannot become one.
uid_t other_user();

} // namespace kptest
