#include "net/frame_order.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {

constexpr uint32_t noon = 1000000000;

// Each frame's number, which is its length, and its microsecond after noon.
using numbered_times = std::vector<std::pair<unsigned, int64_t>>;

frame_time after_noon(int64_t us) {
    int64_t all = int64_t{noon} * 1000000 + us;
    return {static_cast<uint32_t>(all / 1000000), static_cast<uint32_t>(all % 1000000)};
}

numbered_times sorted(const numbered_times& from, frame_time* last) {
    std::vector<captured_frame> frames;
    for (auto [number, us] : from) {
        frames.push_back({nullptr, number, number, after_noon(us)});
    }
    frame_sort(frames.data(), static_cast<int>(frames.size()), last);
    numbered_times result;
    for (const captured_frame& frame : frames) {
        EXPECT_LT(frame.time.us, 1000000u);
        int64_t s = int64_t{frame.time.s} - noon;
        result.emplace_back(frame.length, s * 1000000 + frame.time.us);
    }
    return result;
}

numbered_times sorted(const numbered_times& from) {
    frame_time last;
    return sorted(from, &last);
}

}  // namespace

TEST(frame_sort, frames_in_order_stay_as_they_are) {
    EXPECT_EQ(sorted({}), numbered_times{});
    const numbered_times frames = {{1, 0}, {2, 5}, {3, 5}, {4, 2000000}, {5, 3600000000}};
    EXPECT_EQ(sorted(frames), frames);
}

TEST(frame_sort, frames_out_of_order_are_sorted) {
    EXPECT_EQ(sorted({{1, 10}, {2, 30}, {3, 20}, {4, 20}, {5, 5}, {6, 40}}),
              (numbered_times{{5, 5}, {1, 10}, {3, 20}, {4, 20}, {2, 30}, {6, 40}}));
    EXPECT_EQ(sorted({{1, 1000010}, {2, 999990}}), (numbered_times{{2, 999990}, {1, 1000010}}));
}

TEST(frame_sort, frame_older_than_recorded_ones_gets_the_last_timestamp) {
    frame_time last;
    EXPECT_EQ(sorted({{1, 10}, {2, 50}}, &last), (numbered_times{{1, 10}, {2, 50}}));
    EXPECT_EQ(last, after_noon(50));
    EXPECT_EQ(sorted({{3, 60}, {4, 40}}, &last), (numbered_times{{4, 50}, {3, 60}}));
    EXPECT_EQ(last, after_noon(60));
}

TEST(frame_sort, order_is_kept_when_the_clock_is_set_back) {
    constexpr int64_t hour = 3600000000;
    frame_time last;
    EXPECT_EQ(sorted({{1, hour}, {2, hour + 10}, {3, 20}, {4, 30}}, &last),
              (numbered_times{{1, hour}, {2, hour + 10}, {3, hour + 10}, {4, hour + 10}}));
    // The clock has not caught up yet: these are not frames out of order.
    EXPECT_EQ(sorted({{5, 40}, {6, hour}, {7, hour + 20}}, &last),
              (numbered_times{{5, hour + 10}, {6, hour + 10}, {7, hour + 20}}));
}
