// Changing a field that others change too.
#include "layout/field.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace {

TEST(Update, ChangesTheNewestValueWhenAnotherComesBetween)
{
    uint32_t field = 10;
    int calls = 0;

    const uint32_t result = kp::update(field, [&](uint32_t old_value) {
        if (++calls == 1)
            kp::store_relaxed(field, 20U);
        return old_value + 1;
    });

    EXPECT_EQ(result, 21U);
    EXPECT_EQ(field, 21U);
    EXPECT_GE(calls, 2);
}

} // namespace
