#include "common/deadline.h"

#include <gtest/gtest.h>

#include "tests/unit/support/children.h"

TEST(deadline, has_all_its_time_left_at_first_and_none_at_last) {
    int64_t start = monotonic_ns();
    deadline limit(30);
    int left = limit.left_ms();
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 30);
    EXPECT_TRUE(eventually([&limit] { return limit.left_ms() == 0; }));
    EXPECT_GE(monotonic_ns() - start, 30 * int64_t{1000000}) << "over too early";
}

TEST(deadline, of_no_time_is_over) {
    EXPECT_EQ(deadline(0).left_ms(), 0);
    EXPECT_EQ(deadline(-5).left_ms(), 0);
}
