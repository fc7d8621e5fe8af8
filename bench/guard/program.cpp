// Repeats one operation so often as asked, for counting its instructions: `write`, `read`, `notify`
// (with no peer), `deliver` (one notice from a peer to the callback), and the calls in C that
// `typed_write` and `typed_read` make in C++. The difference of two runs with different counts
// holds nothing but the operation.
#include "kp.hpp"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char *kTopic = "guard/value";
constexpr const char *kPeerPath = "/run/providers/guard-peer";
constexpr unsigned kValueSize = 64;

void check(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "guard: failed: %s\n", what);
    std::exit(1);
}

// A peer that speaks the protocol and nothing else: it listens, tells its parent so, once the
// parent is ready, sends a notice and waits until it was taken. Runs under no valgrind, since it is
// started anew.
int run_peer(int count)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)mkdir("/run/providers", 0777);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", kPeerPath);
    check(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "bind");
    check(listen(listener, 1) == 0, "listen");
    check(write(STDOUT_FILENO, "!", 1) == 1, "the parent hears");
    const int peer = accept(listener, nullptr, nullptr);
    check(peer >= 0, "accept");
    char taken = 0;
    check(read(STDIN_FILENO, &taken, 1) == 1, "the parent is ready");
    kp_write_info notice{};
    notice.type = KP_MSG_WRITE_INFO;
    const uint32_t hash = kp_hash(kTopic);
    notice.bitmap[hash / 8] = static_cast<uint8_t>(1U << hash % 8);
    for (int i = 0; i < count; ++i) {
        check(send(peer, &notice, sizeof notice, MSG_NOSIGNAL) == sizeof notice, "send");
        check(read(STDIN_FILENO, &taken, 1) == 1, "the notice is taken");
    }
    (void)unlink(kPeerPath);
    return 0;
}

int answer_fd = -1;

// Walks the notice as every application does. Nothing needs a read, so each notice costs the same.
int take_notice(kp_t *handle, const kp_write_info *notice, void *)
{
    kp_tag_iter_t iter{};
    while (iter.bucket < KP_BUCKET_COUNT)
        (void)kp_get_next_updated_tag(handle, notice, &iter);
    check(write(answer_fd, "!", 1) == 1, "the peer hears");
    return 0;
}

void deliver(const char *program, int count)
{
    int to_peer[2];
    int from_peer[2];
    check(pipe(to_peer) == 0 && pipe(from_peer) == 0, "pipe");
    const pid_t peer = fork();
    if (peer == 0) {
        (void)dup2(to_peer[0], STDIN_FILENO);
        (void)dup2(from_peer[1], STDOUT_FILENO);
        const std::string number = std::to_string(count);
        (void)execl(program, program, "peer", number.c_str(), nullptr);
        _exit(127);
    }
    char listening = 0;
    check(peer > 0 && read(from_peer[0], &listening, 1) == 1, "the peer listens");
    answer_fd = to_peer[1];
    kp_t *handle = kp_new("guard", take_notice);
    check(handle != nullptr, "kp_new");
    check(kp_tag_consumer_new(handle, kTopic) != nullptr, "kp_tag_consumer_new");
    check(write(answer_fd, "!", 1) == 1, "the peer hears"); // a notice before that could be lost
    int status = 0;
    check(waitpid(peer, &status, 0) == peer && status == 0, "the peer ends well");
    (void)kp_close(handle);
}

void repeat(const std::string &operation, int count)
{
    kp_t *handle = kp_new("guard", nullptr);
    check(handle != nullptr, "kp_new");
    kp_tag_t *tag = kp_tag_provider_new(handle, kTopic, KP_TYPE_RAW, kValueSize, 0);
    check(tag != nullptr, "kp_tag_provider_new");
    char value[kValueSize] = {1};
    check(kp_tag_write(handle, tag, value, kValueSize) == kValueSize, "kp_tag_write");
    if (operation == "write")
        for (int i = 0; i < count; ++i)
            (void)kp_tag_write(handle, tag, value, kValueSize);
    else if (operation == "read")
        for (int i = 0; i < count; ++i)
            (void)kp_tag_read(tag, value, kValueSize);
    else if (operation == "notify")
        for (int i = 0; i < count; ++i)
            (void)kp_tag_notify(handle);
    else
        check(false, "write, read, notify or deliver");
    (void)kp_close(handle);
}

// A number through the functions of C and through the header for C++. Whoever calls them looks at
// the result, so both do here.
void repeat_number(const std::string &operation, int count)
{
    kp::Node node{"guard"};
    auto provider = node.provide<double>(kTopic);
    auto consumer = node.consume<double>(kTopic);
    check(provider.write(1) && consumer.read(), "a number comes through");
    double sum = 0;
    if (operation == "number_write")
        for (int i = 0; i < count; ++i) {
            const double value = i;
            check(kp_tag_write(node.native(), provider.native(), &value, sizeof value) ==
                      sizeof value,
                  "kp_tag_write");
        }
    else if (operation == "typed_write")
        for (int i = 0; i < count; ++i)
            check(provider.write(i).has_value(), "write");
    else if (operation == "number_read")
        for (int i = 0; i < count; ++i) {
            double value = 0;
            uint32_t quality = 0;
            uint64_t timestamp = 0;
            uint64_t source_ts = 0;
            check(kp_tag_read_consistent(consumer.native(), &value, sizeof value, &quality,
                                         &timestamp, &source_ts) == sizeof value,
                  "kp_tag_read_consistent");
            sum += quality == KP_QUALITY_GOOD ? value : 0;
        }
    else
        for (int i = 0; i < count; ++i) {
            const auto now = consumer.read();
            check(now.has_value(), "read");
            sum += now->good() ? now->value : 0;
        }
    check(sum >= 0, "the values are used");
}

} // namespace

int main(int argc, char **argv)
{
    check(argc == 3, "usage: program OPERATION COUNT");
    const int count = std::atoi(argv[2]);
    if (std::strcmp(argv[1], "peer") == 0)
        return run_peer(count);
    if (std::strcmp(argv[1], "deliver") == 0)
        deliver(argv[0], count);
    else if (std::strstr(argv[1], "number_") == argv[1] ||
             std::strstr(argv[1], "typed_") == argv[1])
        repeat_number(argv[1], count);
    else
        repeat(argv[1], count);
}
