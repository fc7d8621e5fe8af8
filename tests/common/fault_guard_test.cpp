#include "common/store/fault_guard.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace kp::tool;

namespace {

constexpr std::size_t kPage = 4096;

// A page of a file that can be cut short under its mapping.
class MappedPage {
  public:
    MappedPage() : fd_(memfd_create("page", MFD_CLOEXEC))
    {
        EXPECT_EQ(ftruncate(fd_, kPage), 0);
        memory_ = static_cast<volatile char *>(mmap(nullptr, kPage, PROT_READ, MAP_SHARED, fd_, 0));
    }
    MappedPage(const MappedPage &) = delete;
    MappedPage &operator=(const MappedPage &) = delete;
    ~MappedPage()
    {
        (void)munmap(const_cast<char *>(memory_), kPage);
        (void)close(fd_);
    }
    void cut()
    {
        EXPECT_EQ(ftruncate(fd_, 0), 0);
    }
    char first() const
    {
        return memory_[0];
    }

  private:
    int fd_;
    volatile char *memory_;
};

} // namespace

TEST(FaultGuard, RunsWhatDoesNotFault)
{
    catch_bus_errors();
    const MappedPage page;
    char byte = 1;

    EXPECT_TRUE(guarded([&] { byte = page.first(); }));

    EXPECT_EQ(byte, 0);
}

TEST(FaultGuard, ComesBackFromMemoryThatIsGoneAgainAndAgain)
{
    catch_bus_errors();
    MappedPage page;
    page.cut();
    char byte = 1;

    EXPECT_FALSE(guarded([&] { byte = page.first(); }));
    EXPECT_FALSE(guarded([&] { byte = page.first(); }));

    EXPECT_EQ(byte, 1);
}

TEST(FaultGuard, DiesOfAFaultOutsideOfAGuardedAccess)
{
    EXPECT_EXIT(
        {
            catch_bus_errors();
            MappedPage page;
            page.cut();
            _exit(page.first());
        },
        testing::KilledBySignal(SIGBUS), "");
}
