// What opening and closing a segment reports when the system refuses something, and that nothing of
// the handle is left behind.
#include "store/opened_segment.h"
#include "testing/capture.h"
#include "testing/faults.h"
#include "testing/leaks.h"
#include "testing/mounts.h"
#include "testing/process.h"
#include "testing/segment_file.h"

#include "kp.h"

#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <vector>

using namespace kptest;

namespace {

// Unmaps what is mapped of a file and says how many mappings that were.
int unmap(const std::string &path)
{
    int count = 0;
    std::ifstream maps("/proc/self/maps");
    std::vector<std::pair<uintptr_t, uintptr_t>> found;
    for (std::string line; std::getline(maps, line);)
        if (line.ends_with(path))
            found.emplace_back(std::stoul(line, nullptr, 16),
                               std::stoul(line.substr(line.find('-') + 1), nullptr, 16));
    for (const auto &[start, end] : found)
        count += munmap(reinterpret_cast<void *>(start), end - start) == 0;
    return count;
}

class OpeningFault : public LeavesNothingBehind {};

class ClosingFault : public OpeningFault {};

TEST_F(OpeningFault, OfMemoryForTheHandleIsReported)
{
    StderrCapture log;
    FailNext fault{Call::calloc};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: kp_shm_new: malloc kp_shm_t: "
              "Cannot allocate memory\n\033[0m");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST_F(OpeningFault, OfTheCreationIsReportedWithoutAnotherTry)
{
    StderrCapture log;
    const FailFrom fault(Call::syscall, 1, ENOENT);

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);

    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): No such file "
                                 "or directory"});
    EXPECT_LT(fault.count(), 20);
}

TEST_F(OpeningFault, OfMemoryForThePathIsReportedTwice)
{
    StderrCapture log;
    FailNext fault{Call::strdup};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), (Lines{"ERROR: kp_mkdir: kp create tag: malloc: Cannot allocate memory",
                                  "ERROR: kp_new_shm: make tag directory failed"}));
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST_F(OpeningFault, OfADirectoryShowsWhenTheFileIsOpened)
{
    StderrCapture log;
    FailFrom fault{Call::mkdirat, 1, EACCES};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
                                 "No such file or directory"});
}

TEST_F(OpeningFault, OfTheFileIsReported)
{
    StderrCapture log;
    FailFrom fault{Call::syscall, 1, EMFILE};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_new_shm: open shm(increase 'ulimit -n'): "
              "Too many open files\n\033[0m");
}

TEST_F(OpeningFault, ForWantOfDescriptorsIsReported)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    StderrCapture log;
    const rlimit none{3, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);

    const kp_shm_t *shm = kp_shm_new("a", KP_ROLE_PROVIDER);

    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(shm, nullptr);
    EXPECT_EQ(log.lines(),
              Lines{"ERROR: kp_new_shm: open shm(increase 'ulimit -n'): Too many open files"});
}

TEST_F(OpeningFault, OfTheSizeIsReported)
{
    StderrCapture log;
    FailNext fault{Call::ftruncate, EFBIG};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_new_shm: ftruncate: File too large\n\033[0m");
}

TEST_F(OpeningFault, OfThePageIsReportedLikeThatOfTheSize)
{
    StderrCapture log;
    FailNext fault{Call::fallocate, ENOSPC};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: ftruncate: No space left on device"});
}

TEST_F(OpeningFault, OfThePageOnAFullFileSystemIsReported)
{
    const TinyTmpfs store("/dev/shm/zu-kp", 4);
    store.fill();
    StderrCapture log;

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: ftruncate: No space left on device"});
}

TEST_F(OpeningFault, OfThePageMayBeInterrupted)
{
    StderrCapture log;
    FailNext fault{Call::fallocate, EINTR};

    const OpenedSegment shm("a");

    EXPECT_EQ(log.text(), "");
}

TEST_F(OpeningFault, OfThePageIsNoneWhereNothingCanBeReserved)
{
    StderrCapture log;
    FailNext fault{Call::fallocate, EOPNOTSUPP};

    const OpenedSegment shm("a");

    EXPECT_EQ(log.text(), "");
}

TEST_F(OpeningFault, OfTheMappingIsReported)
{
    StderrCapture log;
    FailNext fault{Call::mmap, ENOMEM};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: mmap: Cannot allocate memory\n\033[0m");
}

TEST_F(OpeningFault, OfTheMappingCountsNoHandle)
{
    const OpenedSegment other("a");
    StderrCapture log;
    FailNext fault{Call::mmap};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_CONSUMER), nullptr);
    EXPECT_EQ(SegmentFile("a").u8(at::consumer_refs), 0);
}

TEST_F(OpeningFault, OfTheSemaphoreIsReportedAndLeavesTheMapping)
{
    StderrCapture log;
    FailNext fault{Call::sem_init, ENOSYS};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_new: sem_open: Function not implemented\n\033[0m");
    EXPECT_EQ(SegmentFile("a").u16(at::provider_refs), 0);
    EXPECT_EQ(unmap("/dev/shm/zu-kp/a"), 1);
}

TEST_F(OpeningFault, IsReportedWithItsOwnErrorWhenTheClosingFailsToo)
{
    StderrCapture log;
    FailNext mapping{Call::mmap, ENOMEM};
    FailNext closing{Call::close, EIO};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_shm_new: mmap: Cannot allocate memory"});
}

TEST_F(OpeningFault, OfTheSizeIsReportedWithItsOwnErrorWhenTheClosingFailsToo)
{
    StderrCapture log;
    FailNext sizing{Call::ftruncate, EFBIG};
    FailNext closing{Call::close, EIO};

    EXPECT_EQ(kp_shm_new("a", KP_ROLE_PROVIDER), nullptr);
    EXPECT_EQ(log.lines(), Lines{"ERROR: kp_new_shm: ftruncate: File too large"});
}

TEST_F(ClosingFault, OfTheMappingIsReportedAndTheRestIsDone)
{
    OpenedSegment shm("a");
    StderrCapture log;
    FailNext fault{Call::munmap, EINVAL};

    shm.close();

    EXPECT_EQ(log.text_without_line_numbers(),
              "\033[91mERROR: kp_shm_destroy: munmap: Invalid argument\n\033[0m");
    EXPECT_FALSE(SegmentFile("a").exists());
}

TEST_F(ClosingFault, OfTheFileIsIgnored)
{
    OpenedSegment shm("a");
    StderrCapture log;
    FailNext fault{Call::unlinkat, EACCES};

    shm.close();

    EXPECT_EQ(log.text(), "");
    EXPECT_TRUE(SegmentFile("a").exists());
}

TEST_F(ClosingFault, OfTheSemaphoresEndIsIgnored)
{
    OpenedSegment shm("a");
    StderrCapture log;
    FailNext fault{Call::sem_destroy, EINVAL};

    shm.close();

    EXPECT_EQ(log.text(), "");
    EXPECT_FALSE(SegmentFile("a").exists());
}

} // namespace
