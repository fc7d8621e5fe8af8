// The descriptors that the store has open for a moment: their numbers, and who gets them.
#include "store/opened_segment.h"
#include "testing/child.h"
#include "testing/faults.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace kptest;

namespace {

// Says whether a descriptor below 3 refers to something in the store.
bool uses_a_standard_stream()
{
    bool used = false;
    for (const auto &[fd, file] : open_descriptors())
        used |= fd <= STDERR_FILENO && file.find("/dev/shm") != std::string::npos;
    return used;
}

// Runs an operation in a child without standard streams. Says whether the hook before the call
// found descriptors of the library on their numbers.
template <typename Operation> std::optional<int> without_streams(Call call, Operation operation)
{
    ChildProcess child([call, operation](Channel &) {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
            (void)close(stream);
        bool looked = false;
        bool used = false;
        Before look{call, [&looked, &used] {
                        looked = true;
                        used = uses_a_standard_stream();
                    }};
        operation();
        return looked && !used && open_descriptors().count(STDERR_FILENO) == 0 ? 0 : 1;
    });
    return child.wait();
}

TEST(DescriptorsOfTheStore, AreNoneOfTheStandardStreams)
{
    SegmentFile("a/b").create();

    EXPECT_EQ(without_streams(Call::mmap, [] { (void)kp_shm_new("a/b", KP_ROLE_PROVIDER); }), 0);
    EXPECT_EQ(without_streams(
                  Call::mmap,
                  [] { (void)kp_shm_instant_write("a/b", "v", KP_TYPE_STRING, 1, 1, 1, 1, 1); }),
              0);
    EXPECT_EQ(without_streams(Call::calloc, [] { (void)kp_shm_list_all_topics(); }), 0);
    EXPECT_EQ(without_streams(Call::unlinkat,
                              [] {
                                  SegmentFile("c").create();
                                  kp_shm_t *shm = kp_shm_new("c", KP_ROLE_PROVIDER);
                                  (void)kp_shm_destroy(shm, "c", KP_ROLE_PROVIDER);
                              }),
              0);
}

TEST(DescriptorsOfTheStore, AreClosedInAnExecutedProgram)
{
    std::optional<int> found;
    Before mapping{Call::mmap, [&found] {
                       ChildProcess program(
                           {"sh", "-c", "ls -l /proc/self/fd | grep -- '-> /dev/shm/zu-kp/'"});
                       found = program.wait();
                   }};

    const OpenedSegment shm("a");

    EXPECT_EQ(found, 1); // grep has found nothing
}

} // namespace
