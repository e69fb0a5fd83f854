// The 64-bit divisions of the device's program, checked by multiplication: on the device, `/` calls them too.
#include <gtest/gtest.h>
#include <stdint.h>

#include <random>
#include <vector>

extern "C" {
uint64_t __udivdi3(uint64_t dividend, uint64_t divisor);
int64_t __divdi3(int64_t dividend, int64_t divisor);
}

namespace {

// Numbers at the limits of all sizes, and random ones of all sizes.
std::vector<uint64_t> samples() {
    std::vector<uint64_t> all;
    std::mt19937_64 random(1);
    for (unsigned bits = 1; bits <= 64; bits++) {
        const uint64_t largest = UINT64_MAX >> (64 - bits);
        for (uint64_t value : {largest, largest / 2 + 1, largest - 1, random() >> (64 - bits)}) {
            all.push_back(value);
        }
    }
    return all;
}

}  // namespace

TEST(small_division, quotient_times_divisor_is_the_dividend_less_a_smaller_rest) {
    for (uint64_t dividend : samples()) {
        for (uint64_t divisor : samples()) {
            if (divisor == 0) {
                continue;
            }
            uint64_t product = 0;
            ASSERT_FALSE(__builtin_mul_overflow(__udivdi3(dividend, divisor), divisor, &product));
            ASSERT_LE(product, dividend) << dividend << " / " << divisor;
            ASSERT_LT(dividend - product, divisor) << dividend << " / " << divisor;
        }
    }
}

TEST(small_division, signed_quotients_have_the_size_of_the_unsigned_ones) {
    for (uint64_t dividend : samples()) {
        for (uint64_t divisor : samples()) {
            const int64_t a = static_cast<int64_t>(dividend >> 1);
            const int64_t b = static_cast<int64_t>(divisor >> 1);
            if (b == 0) {
                continue;
            }
            const int64_t quotient = static_cast<int64_t>(__udivdi3(dividend >> 1, divisor >> 1));
            ASSERT_EQ(__divdi3(a, b), quotient) << a << " / " << b;
            ASSERT_EQ(__divdi3(-a, b), -quotient) << a << " / " << b;
            ASSERT_EQ(__divdi3(a, -b), -quotient) << a << " / " << b;
            ASSERT_EQ(__divdi3(-a, -b), quotient) << a << " / " << b;
        }
    }
}

TEST(small_division, smallest_number_can_be_divided) {
    EXPECT_EQ(__divdi3(INT64_MIN, 2), INT64_MIN / 2);
    EXPECT_EQ(__divdi3(INT64_MIN, 1), INT64_MIN);
    EXPECT_EQ(__divdi3(INT64_MIN, INT64_MIN), 1);
    EXPECT_EQ(__divdi3(1, INT64_MIN), 0);
}
