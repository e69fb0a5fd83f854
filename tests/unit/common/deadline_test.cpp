#include "common/deadline.h"

#include <gtest/gtest.h>

#include "tests/unit/support/children.h"

TEST(deadline, passes_after_its_time_and_not_before) {
    const int64_t start = monotonic_ns();
    const deadline limit(30);
    const int left = limit.left_ms();
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 30);
    EXPECT_FALSE(limit.is_over());
    EXPECT_TRUE(eventually([&limit] { return limit.is_over(); }));
    EXPECT_GE(monotonic_ns() - start, 30 * int64_t{1000000}) << "too early";
    EXPECT_EQ(limit.left_ms(), 0);
}

TEST(deadline, of_no_time_is_over_at_once) {
    for (int ms : {0, -5}) {
        EXPECT_TRUE(deadline(ms).is_over()) << ms;
        EXPECT_EQ(deadline(ms).left_ms(), 0) << ms;
    }
}

TEST(deadline, limits_a_very_long_time_to_what_poll_accepts) {
    const deadline century(int64_t{100} * 365 * 24 * 3600 * 1000);
    EXPECT_EQ(century.left_ms(), INT_MAX);
    EXPECT_FALSE(century.is_over());
}
