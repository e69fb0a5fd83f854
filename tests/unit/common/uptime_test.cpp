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

TEST(ptime, equals_the_uptime_of_the_kernel) {
    double before = kernel_uptime();
    uint32_t now = ptime();
    double after = kernel_uptime();
    ASSERT_GT(before, 0);
    EXPECT_GE(now, static_cast<uint32_t>(before));
    EXPECT_LE(now, static_cast<uint32_t>(after) + 1);  // a second that has begun may count
}

TEST(ptime, grows_with_time_and_never_falls) {
    uint32_t start = ptime();
    uint32_t last = start;
    EXPECT_TRUE(eventually([&] {
        uint32_t now = ptime();
        EXPECT_GE(now, last);
        last = now;
        return now > start;
    }));
}
