#include "trace/text_line.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>

#include <string>

namespace {

// What `write` leaves in a buffer of `size` bytes.
template <typename Write>
std::string written(size_t size, Write write) {
    std::string buffer(size + 1, '#');
    text_line line = {buffer.data(), size};
    write(&line);
    EXPECT_EQ(buffer[size], '#') << "wrote past the buffer";
    return buffer.substr(0, size);
}

}  // namespace

TEST(text_append, ends_the_text_with_a_nul) {
    EXPECT_EQ(written(8,
                      [](text_line* line) {
                          text_append(line, "abc");
                          text_append(line, 'd');
                          EXPECT_EQ(line->length, 4u);
                          EXPECT_EQ(line->left(), 4u);
                      })
                  .c_str(),
              std::string("abcd"));
}

TEST(text_append, counts_text_that_does_not_fit) {
    std::string text = written(4, [](text_line* line) {
        text_append(line, "abcdef");
        EXPECT_EQ(line->length, 6u);
        EXPECT_EQ(line->left(), 0u);
        text_append(line, "g");
        EXPECT_EQ(line->length, 7u);
    });
    EXPECT_EQ(text, std::string("abc\0", 4));
}

TEST(text_append, text_of_exactly_the_size_loses_a_byte_to_the_nul) {
    EXPECT_EQ(written(3, [](text_line* line) { text_append(line, "abc"); }), std::string("ab\0", 3));
}

TEST(text_append, empty_buffer_stays_untouched) {
    written(0, [](text_line* line) {
        text_append(line, "abc");
        EXPECT_EQ(line->length, 3u);
    });
}

TEST(text_append_numbers, match_printf) {
    for (long value : {0L, 1L, -1L, 4711L, LONG_MAX, LONG_MIN}) {
        char expected[100];
        snprintf(expected, sizeof expected, "%ld %lu %lx", value, static_cast<unsigned long>(value),
                 static_cast<unsigned long>(value));
        std::string got = written(100, [value](text_line* line) {
            text_append_decimal(line, value);
            text_append(line, ' ');
            text_append_unsigned(line, static_cast<unsigned long>(value));
            text_append(line, ' ');
            text_append_hex(line, static_cast<unsigned long>(value));
        });
        EXPECT_STREQ(got.c_str(), expected);
    }
}
