#include "common/growing_bytes.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <string>

#include "tests/unit/support/memory_limit.h"

namespace {

std::string content(const growing_bytes& bytes) {
    return {bytes.data.get(), bytes.length};
}

}  // namespace

TEST(growing_append, keeps_all_bytes_in_order) {
    growing_bytes bytes;
    std::string expected;
    for (int i = 0; i < 5000; i++) {
        const std::string part = std::to_string(i) + '\0';
        ASSERT_TRUE(growing_append(&bytes, part.data(), part.size()));
        expected += part;
    }
    EXPECT_TRUE(content(bytes) == expected);
    EXPECT_LE(bytes.capacity, 2 * expected.size() + 4096);
}

TEST(growing_append, takes_more_bytes_than_twice_its_capacity) {
    growing_bytes bytes;
    const std::string large(100000, 'l');
    ASSERT_TRUE(growing_append(&bytes, "a", 1));
    ASSERT_TRUE(growing_append(&bytes, large.data(), large.size()));
    EXPECT_TRUE(content(bytes) == "a" + large);
}

TEST(growing_append, of_nothing_to_an_empty_buffer_succeeds) {
    growing_bytes bytes;
    EXPECT_TRUE(growing_append(&bytes, nullptr, 0));
    EXPECT_EQ(bytes.length, 0u);
}

TEST(growing_append, leaves_the_buffer_as_it_was_if_memory_runs_out) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    growing_bytes bytes;
    ASSERT_TRUE(growing_append(&bytes, "kept", 4));
    const std::string large(1 << 20, 'l');
    bool has_grown;
    {
        scoped_memory_shortage none;
        has_grown = growing_append(&bytes, large.data(), large.size());
    }
    EXPECT_FALSE(has_grown);
    EXPECT_EQ(content(bytes), "kept");
    EXPECT_TRUE(growing_append(&bytes, " on", 3));
    EXPECT_EQ(content(bytes), "kept on");
}
