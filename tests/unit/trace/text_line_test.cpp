#include "trace/text_line.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>

#include <string>

namespace {

template <typename Put>
std::string put_into(size_t size, Put put) {
    std::string room(size + 1, '#');
    text_line line = {room.data(), size};
    put(&line);
    EXPECT_EQ(room[size], '#') << "wrote past the buffer";
    return room.substr(0, size);
}

}  // namespace

TEST(text_put, appends_and_ends_with_a_nul) {
    EXPECT_EQ(put_into(8,
                       [](text_line* line) {
                           text_put(line, "abc");
                           text_put(line, 'd');
                           EXPECT_EQ(line->length, 4u);
                           EXPECT_EQ(line->room(), 4u);
                       })
                  .c_str(),
              std::string("abcd"));
}

TEST(text_put, counts_what_does_not_fit_and_keeps_what_does) {
    std::string room = put_into(4, [](text_line* line) {
        text_put(line, "abcdef");
        EXPECT_EQ(line->length, 6u);
        EXPECT_EQ(line->room(), 0u);
        text_put(line, "g");
        EXPECT_EQ(line->length, 7u);
    });
    EXPECT_EQ(room, std::string("abc\0", 4));
}

TEST(text_put, text_of_exactly_the_size_is_cut_for_the_nul) {
    EXPECT_EQ(put_into(3, [](text_line* line) { text_put(line, "abc"); }), std::string("ab\0", 3));
}

TEST(text_put, buffer_of_no_size_is_left_alone) {
    put_into(0, [](text_line* line) {
        text_put(line, "abc");
        EXPECT_EQ(line->length, 3u);
    });
}

TEST(text_put_numbers, are_as_printf_prints_them) {
    for (long value : {0L, 1L, -1L, 4711L, LONG_MAX, LONG_MIN}) {
        char expected[100];
        snprintf(expected, sizeof expected, "%ld %lu %lx", value, static_cast<unsigned long>(value),
                 static_cast<unsigned long>(value));
        std::string got = put_into(100, [value](text_line* line) {
            text_put_decimal(line, value);
            text_put(line, ' ');
            text_put_unsigned(line, static_cast<unsigned long>(value));
            text_put(line, ' ');
            text_put_hex(line, static_cast<unsigned long>(value));
        });
        EXPECT_STREQ(got.c_str(), expected);
    }
}
