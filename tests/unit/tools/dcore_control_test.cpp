#include <gtest/gtest.h>

#include <cctype>

#include "tools/dcore/control.h"

TEST(dcore_control, line_has_the_length_between_8_and_21_characters) {
    for (uint64_t length : {0ull, 7ull, 105025536ull, 18446744073709551615ull}) {
        std::string line = control_line(length), number = std::to_string(length);
        ASSERT_EQ(line.size(), 8 + number.size() + 21 + 1);
        EXPECT_EQ(line.substr(8, number.size()), number);
        EXPECT_EQ(line.find('\n'), line.size() - 1);
    }
}

TEST(dcore_control, line_has_no_digits_outside_the_length) {
    std::string line = control_line(5);
    for (size_t i = 0; i < line.size(); i++) {
        EXPECT_EQ(isdigit(static_cast<unsigned char>(line[i])) != 0, i == 8) << i;
    }
}

TEST(dcore_control, remark_names_the_process) {
    EXPECT_EQ(control_remark(812, "is a zombie"), "dcore: 812: is a zombie\n");
}
