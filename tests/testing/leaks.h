// The fixture of tests that make something fail: the process must hold at their end what it held at
// their beginning.
#pragma once

#include "testing/faults.h"
#include "testing/process.h"

#include <gtest/gtest.h>
#include <map>
#include <string>

namespace kptest {

class LeavesNothingBehind : public testing::Test {
  protected:
    ~LeavesNothingBehind() override
    {
        EXPECT_EQ(open_descriptors(), descriptors_);
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(mapping_count(), mappings_);
    }

    // The test has been handed a block of the library's, which it frees itself.
    void expect_block_handed_over()
    {
        ++blocks_;
    }

  private:
    const std::map<int, std::string> descriptors_ = open_descriptors();
    const int mappings_ = mapping_count();
    long blocks_ = live_blocks();
};

} // namespace kptest
