#include "tools/archiveview/facts/counter.h"

#include <gtest/gtest.h>

using archiveview::counter_difference;

namespace {

constexpr uint64_t end_of_32_bits = uint64_t{1} << 32;

}  // namespace

TEST(archiveview_counter, difference_is_how_far_it_went) {
    EXPECT_EQ(counter_difference(5, 5), 0u);
    EXPECT_EQ(counter_difference(5, 12), 7u);
    EXPECT_EQ(counter_difference(0, UINT64_MAX), UINT64_MAX);
}

TEST(archiveview_counter, of_32_bits_wraps_near_its_end) {
    EXPECT_EQ(counter_difference(end_of_32_bits - 10, 5), 15u);
    EXPECT_EQ(counter_difference(end_of_32_bits - 1, 0), 1u);
}

TEST(archiveview_counter, that_went_backwards_otherwise_was_reset) {
    EXPECT_EQ(counter_difference(1000, 5), std::nullopt);
    EXPECT_EQ(counter_difference(end_of_32_bits / 2, 5), std::nullopt);
    EXPECT_EQ(counter_difference(end_of_32_bits - 10, end_of_32_bits - 11), std::nullopt);
    EXPECT_EQ(counter_difference(end_of_32_bits + 10, 5), std::nullopt);
    EXPECT_EQ(counter_difference(UINT64_MAX, 0), std::nullopt);
}
