#include "common/monotonic.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/support/children.h"

namespace {

// The standard library reads the same clock.
int64_t expected_ns() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

TEST(monotonic, ns_equal_the_monotonic_clock) {
    const int64_t before = expected_ns();
    const int64_t now = monotonic_ns();
    EXPECT_GE(now, before);
    EXPECT_LE(now, expected_ns());
}

TEST(monotonic, ms_are_the_same_time_rounded_down) {
    const int64_t before = monotonic_ns();
    const int64_t now = monotonic_ms();
    EXPECT_GE(now, before / 1000000);
    EXPECT_LE(now, monotonic_ns() / 1000000);
}

TEST(monotonic, clock_advances) {
    const int64_t start = monotonic_ns();
    EXPECT_TRUE(eventually([start] { return monotonic_ns() - start >= 20000000; }));
}
