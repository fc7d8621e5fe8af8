#include "kp_run.h"

#include "testing/child.h"
#include "testing/file_text.h"
#include "testing/process.h"
#include "testing/unix_socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace kptest {

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kDeadlineMs = 300'000;

struct Pipe {
    int read_end = -1;
    int write_end = -1;

    Pipe()
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            read_end = ends[0];
            write_end = ends[1];
        }
    }
    ~Pipe()
    {
        close_read();
        close_write();
    }
    void close_read()
    {
        if (read_end >= 0)
            (void)close(std::exchange(read_end, -1));
    }
    void close_write()
    {
        if (write_end >= 0)
            (void)close(std::exchange(write_end, -1));
    }
};

std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void become(std::vector<std::string> command, const RunOptions &options,
                         const Pipe &input, const Pipe &output, const Pipe &errors)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)dup2(input.read_end, STDIN_FILENO);
    (void)dup2(errors.write_end, STDERR_FILENO);
    const int out = options.output_file.empty()
                        ? output.write_end
                        : open(options.output_file.c_str(), O_WRONLY | O_CLOEXEC);
    (void)dup2(out, STDOUT_FILENO);
    if (options.uid != 0 && (setgid(options.uid) != 0 || setuid(options.uid) != 0))
        _exit(99);
    (void)setenv("LC_ALL", "C.UTF-8", 1);
    (void)setenv("TZ", "UTC", 1);
    (void)unsetenv("NO_COLOR");
    for (const std::string &entry : options.environment)
        (void)putenv(strdup(entry.c_str()));
    (void)execvp(command[0].c_str(), pointers_to(command).data());
    _exit(127);
}

// Moves what there is to read to `text`. Closes the descriptor when nothing more can come.
void take(Pipe &pipe, std::string &text)
{
    std::array<char, 65536> buffer;
    const ssize_t size = read(pipe.read_end, buffer.data(), buffer.size());
    if (size > 0)
        text.append(buffer.data(), static_cast<std::size_t>(size));
    else if (size == 0 || errno != EINTR)
        pipe.close_read();
}

void exchange_text(Pipe &input, Pipe &output, Pipe &errors, const RunOptions &options, Ran &ran)
{
    std::string rest = options.input;
    while (output.read_end >= 0 || errors.read_end >= 0) {
        if (rest.empty())
            input.close_write();
        std::array<pollfd, 3> fds = {{{output.read_end, POLLIN, 0},
                                      {errors.read_end, POLLIN, 0},
                                      {input.write_end, POLLOUT, 0}}};
        if (poll(fds.data(), fds.size(), kDeadlineMs) <= 0)
            return;
        if (fds[0].revents)
            take(output, ran.out);
        if (options.close_output_after > 0 && ran.out.size() >= options.close_output_after)
            output.close_read();
        if (fds[1].revents)
            take(errors, ran.err);
        if (fds[2].revents) {
            const ssize_t size = write(input.write_end, rest.data(), rest.size());
            rest.erase(0, size > 0 ? static_cast<std::size_t>(size) : rest.size());
        }
    }
}

// Copies the program and its library to a place of this mount namespace, as far from one another as
// they are in the build.
std::string copy_for_others(const fs::path &program)
{
    const fs::path build = KP_BUILD_FOLDER;
    const fs::path place = "/mnt";
    const fs::path started = program.lexically_relative(build);
    EXPECT_EQ(mount("tmpfs", place.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"), 0);
    for (const fs::path &file : std::set<fs::path>{"tools/kp/kp", "src/libzu-kp.so.3", started}) {
        fs::create_directories((place / file).parent_path());
        fs::copy_file(build / file, place / file);
        fs::permissions(place / file, fs::perms(0755));
    }
    return place / started;
}

} // namespace

Ran run_program(const std::vector<std::string> &command, const RunOptions &options)
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    Pipe input;
    Pipe output;
    Pipe errors;
    const pid_t pid = fork();
    if (pid == 0) {
        (void)std::signal(SIGPIPE, SIG_DFL);
        become(command, options, input, output, errors);
    }
    input.close_read();
    output.close_write();
    errors.close_write();
    Ran ran;
    exchange_text(input, output, errors, options, ran);
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, &status, 0);
        ran.err += "(killed: it did not end)";
    }
    ran.code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return ran;
}

const std::string &program_for(uid_t user)
{
    static const std::string own = KP_PROGRAM;
    if (user == 0)
        return own;
    static const std::string copied = copy_for_others(own);
    return copied;
}

Ran kp(const std::vector<std::string> &arguments, const RunOptions &options)
{
    std::vector<std::string> command = {program_for(options.uid)};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run_program(command, options);
}

std::string filtered(const std::string &input, const std::vector<std::string> &command)
{
    const Ran ran = run_program(command, {.input = input});
    EXPECT_EQ(ran.err, "");
    EXPECT_EQ(ran.code, 0);
    return ran.out;
}

std::string findings_of(const Ran &doctor, const std::string &keys)
{
    return filtered(
        doctor.out,
        {"jq", "-r",
         "select(.level != \"note\" and .check != \"inotify-use\") | \"\\(.level) " + keys + "\""});
}

std::string shown(pid_t pid)
{
    std::string program;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), program);
    return std::to_string(pid) + " " + program;
}

void put(const std::string &topic, uint32_t type, const std::string &bytes)
{
    ASSERT_EQ(kp_shm_instant_write(topic.c_str(), bytes.data(), type,
                                   static_cast<uint32_t>(bytes.size()), kFutureUs, 1, kFutureUs, 0),
              0);
}

void put_double(const std::string &topic, double value)
{
    put(topic, KP_TYPE_DOUBLE, bytes_of(value));
}

void put_text(const std::string &topic, const std::string &text)
{
    put(topic, KP_TYPE_STRING, text);
}

std::string store_picture()
{
    std::vector<std::string> lines;
    for (const char *root : {"/dev/shm", "/run"})
        for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
            struct stat status;
            if (lstat(entry.path().c_str(), &status) != 0)
                continue;
            std::ostringstream line;
            line << entry.path().string() << ' ' << status.st_mode << ' ' << status.st_size << ' '
                 << status.st_ino << ' ' << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec
                 << ' ' << status.st_ctim.tv_sec << '.' << status.st_ctim.tv_nsec << ' ';
            if (S_ISREG(status.st_mode))
                line << file_text(entry.path());
            lines.push_back(line.str());
        }
    std::sort(lines.begin(), lines.end());
    std::string picture;
    for (const std::string &line : lines)
        picture += line + '\n';
    return picture;
}

void leave_dead_sockets(int count)
{
    for (int number = 0; number < count; ++number)
        UnixSocket::leave_dead_file("/run/providers/dead-" + std::to_string(number));
}

int ignore_notice(kp_t *, const kp_write_info *, void *)
{
    return 0;
}

OwnProcess::~OwnProcess()
{
    if (status_)
        return;
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
}

void OwnProcess::start(const std::function<void()> &become)
{
    pid_ = fork();
    if (pid_ == 0) {
        become();
        _exit(127);
    }
}

void OwnProcess::signal(int number) const
{
    (void)kill(pid_, number);
}

std::optional<int> OwnProcess::status()
{
    int status = 0;
    if (!status_ && wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }))
        status_ = status;
    return status_;
}

bool OwnProcess::dies_of(int number)
{
    const auto ended = status();
    return ended && WIFSIGNALED(*ended) && WTERMSIG(*ended) == number;
}

uid_t other_user()
{
    const auto become_nobody = [] { return setgid(kNobody) == 0 && setuid(kNobody) == 0; };
    return status_of_child(become_nobody) == 0 ? kNobody : 0;
}

} // namespace kptest
