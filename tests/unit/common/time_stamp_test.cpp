#include "common/time_stamp.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <string>

namespace {

std::string expected(time_t now) {
    tm local = {};
    localtime_r(&now, &local);
    char text[64];
    strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

}  // namespace

TEST(time_stamp_now, is_the_local_time) {
    time_t before = time(nullptr);
    std::string stamp = time_stamp_now().text;
    EXPECT_GE(stamp, expected(before));
    EXPECT_LE(stamp, expected(time(nullptr)));
}

TEST(time_stamp_now, follows_a_time_zone_that_is_set_later) {
    setenv("TZ", "UTC-3", 1);
    time_stamp first = time_stamp_now();
    setenv("TZ", "UTC+9", 1);
    time_stamp second = time_stamp_now();
    unsetenv("TZ");
    EXPECT_LT(std::string(second.text), std::string(first.text));
}
