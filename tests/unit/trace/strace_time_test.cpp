#include "trace/strace_time.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "tests/unit/support/time_zone.h"

namespace {

constexpr time_t midnight = time_t{86400} * 20000;  // UTC

std::string time_at(strace_minute* minute, time_t seconds, long ns = 0) {
    const strace_time_text time = strace_time_of_day(minute, {seconds, ns});
    EXPECT_EQ(static_cast<size_t>(time.length), strlen(time.text));
    return time.text;
}

std::string duration(const timespec& begin, const timespec& end) {
    const strace_time_text text = strace_duration(begin, end);
    EXPECT_EQ(static_cast<size_t>(text.length), strlen(text.text));
    return text.text;
}

}  // namespace

TEST(strace_time_of_day, has_microseconds) {
    scoped_zone zone("UTC0");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, midnight + 3723, 45678), "01:02:03.000045 ");
    EXPECT_EQ(time_at(&minute, midnight + 3724, 999999999), "01:02:04.999999 ");
    EXPECT_EQ(time_at(&minute, midnight + 3724), "01:02:04.000000 ");
}

TEST(strace_time_of_day, is_local) {
    scoped_zone zone("TST-5:45");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, midnight), "05:45:00.000000 ");
}

TEST(strace_time_of_day, is_right_in_a_zone_whose_offset_has_seconds) {
    scoped_zone zone("TST-0:00:17");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, midnight + 42), "00:00:59.000000 ");
    EXPECT_EQ(time_at(&minute, midnight + 43), "00:01:00.000000 ");
}

TEST(strace_time_of_day, passes_midnight) {
    scoped_zone zone("UTC0");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, midnight - 1, 999999000), "23:59:59.999999 ");
    EXPECT_EQ(time_at(&minute, midnight), "00:00:00.000000 ");
}

TEST(strace_time_of_day, follows_steps_of_the_clock) {
    scoped_zone zone("UTC0");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, midnight + 60), "00:01:00.000000 ");
    EXPECT_EQ(time_at(&minute, midnight + 59), "00:00:59.000000 ");
    EXPECT_EQ(time_at(&minute, midnight + 86399), "23:59:59.000000 ");
    EXPECT_EQ(time_at(&minute, midnight - 7200), "22:00:00.000000 ");
}

TEST(strace_time_of_day, is_right_on_a_machine_whose_clock_was_never_set) {
    scoped_zone zone("TST-1");
    strace_minute minute;
    EXPECT_EQ(time_at(&minute, 7), "01:00:07.000000 ");
}

TEST(strace_time_of_day, looks_at_the_time_zone_once_a_minute) {
    strace_minute minute;
    {
        scoped_zone zone("UTC0");
        EXPECT_EQ(time_at(&minute, midnight), "00:00:00.000000 ");
    }
    scoped_zone zone("TST-1");
    EXPECT_EQ(time_at(&minute, midnight + 59), "00:00:59.000000 ");
    EXPECT_EQ(time_at(&minute, midnight + 60), "01:01:00.000000 ");
}

TEST(strace_duration, is_in_seconds_with_six_digits) {
    EXPECT_EQ(duration({5, 0}, {5, 0}), " <0.000000>\n");
    EXPECT_EQ(duration({5, 0}, {5, 123456}), " <0.000123>\n");
    EXPECT_EQ(duration({5, 100}, {3605, 1100}), " <3600.000001>\n");
}

TEST(strace_duration, borrows_from_the_seconds) {
    EXPECT_EQ(duration({5, 999999000}, {6, 0}), " <0.000001>\n");
    EXPECT_EQ(duration({5, 500000000}, {7, 250000000}), " <1.750000>\n");
}
