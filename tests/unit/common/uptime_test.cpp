#include "common/uptime.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/unit/support/children.h"

namespace {

double kernel_uptime() {
    std::ifstream file("/proc/uptime");
    double seconds = -1;
    file >> seconds;
    return seconds;
}

}  // namespace

TEST(ptime, is_the_uptime_of_the_kernel_in_seconds) {
    double before = kernel_uptime();
    uint32_t now = ptime();
    double after = kernel_uptime();
    ASSERT_GT(before, 0);
    EXPECT_GE(now, static_cast<uint32_t>(before));
    EXPECT_LE(now, static_cast<uint32_t>(after) + 1);  // a begun second may count
}

TEST(ptime, goes_on_second_by_second) {
    uint32_t start = ptime();
    uint32_t last = start;
    EXPECT_TRUE(eventually([&] {
        uint32_t now = ptime();
        EXPECT_GE(now, last);
        last = now;
        return now > start;
    }));
}

TEST(monotonic_ns, counts_the_nanoseconds_of_the_same_clock_on) {
    double before = kernel_uptime();
    int64_t start = monotonic_ns();
    EXPECT_TRUE(eventually([start] { return monotonic_ns() - start >= 20000000; }));
    double passed = static_cast<double>(monotonic_ns() - start) / 1e9;
    EXPECT_LE(passed, kernel_uptime() - before + 0.02);  // the kernel shows hundredths
}
