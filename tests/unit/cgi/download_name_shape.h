// The shape of a download's name.
#pragma once

#include <gtest/gtest.h>

#include <string>

// Removes the time, "YYYYMMDD-HHMMSS", that stands before the suffix.
inline std::string without_stamp(std::string name) {
    constexpr size_t stamp_length = 15;
    const size_t end = name.rfind('.');
    if (end == std::string::npos || end < stamp_length) {
        ADD_FAILURE() << name;
        return name;
    }
    const std::string stamp = name.substr(end - stamp_length, stamp_length);
    EXPECT_EQ(stamp.find_first_not_of("0123456789"), 8u) << name;
    EXPECT_EQ(stamp.find_last_not_of("0123456789"), 8u) << name;
    EXPECT_EQ(stamp[8], '-') << name;
    return name.erase(end - stamp_length, stamp_length);
}
