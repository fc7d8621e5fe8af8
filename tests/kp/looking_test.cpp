// Looking changes nothing: not a byte, count or time of change of the store, and nothing of the
// mesh, neither in the end nor for a moment.
#include "kp_run.h"

#include "testing/segment_file.h"
#include "testing/unix_socket.h"

#include <array>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

using namespace kptest;

namespace {

// Watches what happens to the entries of some directories from now on: which one is made, removed
// or changed, and which one somebody had open for writing. A mapping through which bytes or counts
// could change needs such a descriptor.
class DirectoryWatch {
  public:
    explicit DirectoryWatch(const std::vector<std::string> &directories)
        : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
    {
        for (const std::string &directory : directories)
            EXPECT_GE(inotify_add_watch(fd_, directory.c_str(),
                                        IN_CREATE | IN_DELETE | IN_MOVE | IN_MODIFY | IN_ATTRIB |
                                            IN_CLOSE_WRITE),
                      0)
                << directory;
    }
    DirectoryWatch(const DirectoryWatch &) = delete;
    DirectoryWatch &operator=(const DirectoryWatch &) = delete;
    ~DirectoryWatch()
    {
        (void)close(fd_);
    }

    // Gives the names of the entries to which something has happened since the last call, each with
    // a blank.
    std::string take() const
    {
        alignas(inotify_event) std::array<char, 65536> events;
        std::string names;
        for (ssize_t size = 0; (size = read(fd_, events.data(), events.size())) > 0;)
            for (ssize_t at = 0; at < size;) {
                const auto *event = reinterpret_cast<const inotify_event *>(events.data() + at);
                names += (event->len > 0 ? std::string(event->name) : "?") + " ";
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        return names;
    }

  private:
    int fd_;
};

// A device with one endpoint that provides a topic and a second one, held by the test itself, whose
// backlog keeps every connection, even one that was closed again at once.
class Device {
  public:
    Device()
        : handle_(kp_new("application", ignore_notice)),
          tag_(kp_tag_provider_new(handle_, "plant/speed", KP_TYPE_DOUBLE, 8, 0))
    {
        const double value = 21.5;
        (void)kp_tag_write(handle_, tag_, &value, sizeof(value));
        put_text("plant/name", "north");
        SegmentFile("waiting").create();
        SegmentFile("short").create(3);
        endpoint_ = UnixSocket::listening("/run/providers/endpoint");
        of_application_ = endpoint_.accept();
    }
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    ~Device()
    {
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }

    bool was_connected_to() const
    {
        return endpoint_.is_readable(std::chrono::milliseconds(0));
    }

  private:
    kp_t *handle_;
    kp_tag_t *tag_;
    UnixSocket endpoint_;
    UnixSocket of_application_;
};

const std::vector<std::string> kWatched = {"/run/providers", "/dev/shm", "/dev/shm/zu-kp",
                                           "/dev/shm/zu-kp/plant"};

} // namespace

class Looking : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Looking, ChangesNothing)
{
    const Device device;
    const std::string before = store_picture();
    const DirectoryWatch watch(kWatched);

    const Ran ran = kp(GetParam());

    EXPECT_NE(ran.code, 2) << ran.err;
    EXPECT_EQ(watch.take(), "");
    EXPECT_FALSE(device.was_connected_to());
    EXPECT_EQ(store_picture(), before);
}

INSTANTIATE_TEST_SUITE_P(
    EveryCommandThatLooks, Looking,
    testing::Values(
        std::vector<std::string>{"list"}, std::vector<std::string>{"list", "-l"},
        std::vector<std::string>{"list", "--tree"}, std::vector<std::string>{"get", "#"},
        std::vector<std::string>{"get", "missing", "-t", "0.1"},
        std::vector<std::string>{"info", "plant/speed"}, std::vector<std::string>{"dump"},
        std::vector<std::string>{"export", "--prometheus"},
        std::vector<std::string>{"record", "#", "-t", "0.2"}, std::vector<std::string>{"peers"},
        std::vector<std::string>{"doctor"}, std::vector<std::string>{"gc", "-n"},
        std::vector<std::string>{"hz", "#", "-1", "-w", "0.1"},
        std::vector<std::string>{"watch", "#", "-t", "0.2", "--rate", "100"},
        std::vector<std::string>{"wait", "plant/speed", "==", "0", "-t", "0.1"}));

TEST(LookingAtTheLiveView, ChangesNothing)
{
    const Device device;
    const std::string before = store_picture();
    const DirectoryWatch watch(kWatched);

    const Ran ran =
        run_program({"sh", "-c",
                     "{ sleep 0.6; printf q; sleep 0.2; } | TERM=xterm "
                     "script -qefc \"exec '" KP_PROGRAM "' top --delay 0.1\" /dev/null"});

    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_NE(ran.out.find("plant/speed"), std::string::npos);
    EXPECT_EQ(watch.take(), "");
    EXPECT_FALSE(device.was_connected_to());
    EXPECT_EQ(store_picture(), before);
}

// Shows that the test above can fail: it sees the commands that do take part in the mesh.
TEST(TakingPart, IsSeenByTheEndpointsAndInTheStore)
{
    const Device device;
    const DirectoryWatch watch(kWatched);

    (void)kp({"watch", "plant/speed", "--mesh", "-t", "0.3"});
    const std::string joined = watch.take();
    const bool connected = device.was_connected_to();
    (void)kp({"set", "plant/speed", "22.5", "--peer-wait", "0"});

    EXPECT_NE(joined.find("kp-watch-"), std::string::npos) << joined;
    EXPECT_TRUE(connected);
    EXPECT_NE(watch.take().find("speed "), std::string::npos);
}
