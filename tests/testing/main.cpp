// The main() of every test binary.
#include "testing/capture.h"
#include "testing/mounts.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Leaves the next test of the binary, if it runs in the same process, the files of no other.
class EmptyFolders : public testing::EmptyTestEventListener {
  public:
    void OnTestEnd(const testing::TestInfo &) override
    {
        for (const char *folder : {"/dev/shm", "/run"})
            for (const fs::directory_entry &entry : fs::directory_iterator(folder))
                fs::remove_all(entry);
    }
};

} // namespace

int main(int argc, char **argv)
{
    // Whoever runs the tests may have any umask and hand over descriptors, which tests count.
    (void)umask(022);
    (void)close_range(STDERR_FILENO + 1, ~0U, 0);
    // Listing runs where the build runs, which need not allow namespaces.
    const bool lists_only = std::any_of(argv + 1, argv + argc, [](std::string_view argument) {
        return argument == "--gtest_list_tests";
    });
    if (!lists_only)
        kptest::enter_private_mounts();
    kptest::keep_sanitizer_reports_out_of_captures();
    testing::InitGoogleMock(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new EmptyFolders);
    // ThreadSanitizer starts a thread of its own with the first one; it must not look like a leak.
    std::thread([] {}).join();
    return RUN_ALL_TESTS();
}
