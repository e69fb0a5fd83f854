#include "common/ascii.h"

#include <ctype.h>
#include <gtest/gtest.h>
#include <stdlib.h>

TEST(ascii, agrees_with_the_c_locale_about_each_character) {
    for (int code = 0; code < 256; code++) {
        const char c = static_cast<char>(code);
        EXPECT_EQ(is_ascii_blank(c), isspace(code) != 0) << code;
        EXPECT_EQ(is_ascii_digit(c), isdigit(code) != 0) << code;
        EXPECT_EQ(is_ascii_printable(c), isprint(code) != 0) << code;
        const char digit[] = {c, '\0'};
        EXPECT_EQ(ascii_hex_value(c), isxdigit(code) ? strtol(digit, nullptr, 16) : -1) << code;
    }
}
