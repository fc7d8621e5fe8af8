// Arbitrary entries in the store and in the endpoint directory: names, kinds and depth. The store
// is listed and scanned, and compared with a walk of the file system; an endpoint is opened among
// the others' entries. Time is made to pass at once, since each dead socket costs three seconds.
#include "fuzz/fuzz.h"

#include "core/handle.h"
#include "kp.h"
#include "notify/endpoint.h"
#include "testing/unix_socket.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>

namespace fs = std::filesystem;
using namespace kpfuzz;

namespace {

const fs::path kStore = "/dev/shm/zu-kp";
const fs::path kProviders = "/run/providers";

std::atomic<int64_t> skipped_ms;

// Makes a name of a directory entry, or nothing when the input has none left.
std::string make_name(FuzzedDataProvider &input)
{
    std::string name = input.ConsumeBool() ? input.PickValueInArray({"a", "b", "c"})
                                           : input.ConsumeRandomLengthString(300);
    std::erase(name, '/');
    name = name.substr(0, name.find('\0')).substr(0, 255);
    return name == "." || name == ".." ? "" : name;
}

void make_entry(const fs::path &path, int kind)
{
    std::error_code ignored;
    switch (kind) {
    case 0:
        std::ofstream(path) << "junk";
        return;
    case 1:
        fs::create_directory(path, ignored);
        return;
    case 2:
        fs::create_symlink("/dev/shm/zu-kp", path, ignored);
        return;
    case 3:
        (void)mkfifo(path.c_str(), 0666);
        return;
    default:
        if (path.native().size() < 100)
            kptest::UnixSocket::leave_dead_file(path);
    }
}

void fill(const fs::path &root, FuzzedDataProvider &input, int depth)
{
    std::error_code ignored;
    fs::create_directories(root, ignored);
    const int count = input.ConsumeIntegralInRange<int>(0, 4);
    for (int entry = 0; entry < count; ++entry) {
        const std::string name = make_name(input);
        if (name.empty())
            continue;
        const int kind = input.ConsumeIntegralInRange<int>(0, 5);
        if (fs::symlink_status(root / name).type() == fs::file_type::not_found)
            make_entry(root / name, kind);
        if (depth > 0 && fs::symlink_status(root / name).type() == fs::file_type::directory)
            fill(root / name, input, depth - 1);
    }
}

std::ptrdiff_t slashes(const std::string &text)
{
    return std::count(text.begin(), text.end(), '/');
}

// The store as the file system tells it: what is listed, and what a pattern finds.
struct Walk {
    std::multiset<std::string> listed;
    std::set<std::string> matched;
};

Walk walk(const std::string &pattern)
{
    Walk found;
    const std::ptrdiff_t depth = slashes(pattern);
    const bool reaches_deeper = !pattern.empty() && pattern.back() == '#';
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(kStore)) {
        const std::string topic = entry.path().native().substr(kStore.native().size() + 1);
        const auto type = entry.symlink_status().type();
        if (type != fs::file_type::directory && slashes(topic) <= 2)
            found.listed.insert(topic);
        const bool is_examined =
            slashes(topic) == depth || (slashes(topic) > depth && reaches_deeper);
        if (type == fs::file_type::regular && is_examined && naive_match(pattern, topic))
            found.matched.insert(topic);
    }
    return found;
}

std::set<std::string> topics_of(kp_t *handle)
{
    std::set<std::string> topics;
    for (uint32_t bucket = 0; bucket < KP_BUCKET_COUNT; ++bucket)
        for (const kp_dict_entry *entry = kp_lookup_head(handle, bucket); entry;
             entry = entry->next)
            topics.insert(kp_tag_get_topic(entry->tag));
    return topics;
}

bool has_dead_sockets()
{
    for (const fs::directory_entry &entry : fs::directory_iterator(kProviders))
        if (entry.is_socket() && !entry.is_symlink() && entry.path().filename() != "fuzzer")
            return true;
    return false;
}

} // namespace

extern "C" {

int __real_poll(pollfd *fds, nfds_t count, int timeout);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout);
int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_usleep(useconds_t duration);

int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    if (timeout > 0)
        skipped_ms += timeout;
    return __real_poll(fds, count, 0);
}

int __wrap_clock_gettime(clockid_t clock, timespec *now)
{
    const int result = __real_clock_gettime(clock, now);
    now->tv_sec += skipped_ms / 1000;
    return result;
}

int __wrap_usleep(useconds_t)
{
    return 0;
}
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string pattern =
        input.PickValueInArray({"#", "+", "a/+", "a/#", "+/+/+", "a/b/c/#", "+/+x/#", "a/#/b"});
    fill(kStore, input, 4);
    fill(kProviders, input, 0);
    const Walk expected = walk(pattern);

    check(listed_topics() == expected.listed, "the listed topics are those of the file system");
    kp_t *handle = kp_new("fuzzer", nullptr);
    if (handle) {
        check(!has_dead_sockets(), "dead sockets are removed");
        check(kp_sub_topic(handle, pattern.c_str()) == 0, "the store can be scanned");
        check(topics_of(handle) == expected.matched, "the scan finds what the pattern covers");
        check(only_the_store_was_touched(), "nothing is made outside the store");
        (void)kp_tags_destroy(handle);
        (void)kp_destroy(handle);
    } else {
        check(fs::is_directory(kProviders / "fuzzer"),
              "only a directory keeps a name from binding");
    }
    empty_folders();
    return 0;
}
