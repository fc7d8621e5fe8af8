// The log lets a number of lines pass in each minute, whichever test has caused them. So that each
// test finds the log as in a process of its own, a new minute begins with each.
#include "base/log.h"

#include <gtest/gtest.h>

namespace {

class FreshLog : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override
    {
        kp::mqtt::log_what_was_left_out(kp::mqtt::Clock::now() + kp::mqtt::LineBudget::kTime);
    }
};

[[maybe_unused]] const bool is_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshLog);
    return true;
}();

} // namespace
