// What the process holds, and the fixture of tests that must leave nothing of it behind.
#pragma once

#include <gtest/gtest.h>
#include <iosfwd>
#include <map>
#include <string>

namespace kptest {

// Compare the results of two calls of now().
struct Holdings {
    std::map<int, std::string> descriptors; // each with what it refers to
    int threads;
    long blocks;  // that the library has allocated; see live_blocks()
    int mappings; // those of segments

    static Holdings now();
    bool operator==(const Holdings &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Holdings &holdings);

// Every test of this fixture fails when the process holds something else at its end than at its
// beginning. It looks when all members of the fixtures derived from it are gone.
class LeavesNothingBehind : public testing::Test {
  protected:
    LeavesNothingBehind();
    ~LeavesNothingBehind() override;

    // One block more stays than there was: the library keeps it on purpose, or has handed it to the
    // test, which frees it itself.
    void expect_a_kept_block()
    {
        ++before_.blocks;
    }

  private:
    Holdings before_;
};

} // namespace kptest
