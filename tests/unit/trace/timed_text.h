// Checks of the text of a timed trace.
#pragma once

#include <ctype.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t time_length = 16;  // "HH:MM:SS.uuuuuu "

// `text` has the shape of `sample`: the same characters, and a digit wherever the sample has one.
inline bool is_shaped_like(std::string_view text, std::string_view sample) {
    bool same = text.size() == sample.size();
    for (size_t i = 0; same && i < text.size(); i++) {
        same = isdigit(static_cast<unsigned char>(sample[i]))
                   ? isdigit(static_cast<unsigned char>(text[i])) != 0
                   : text[i] == sample[i];
    }
    return same;
}

inline bool has_time(std::string_view line) {
    return is_shaped_like(line.substr(0, time_length), "00:00:00.000000 ");
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The duration at the end of a line, in seconds; -1 if there is none.
inline double duration_of(const std::string& line) {
    const size_t at = line.rfind(" <");
    if (at == std::string::npos || line.size() < at + sizeof " <0.000000>" - 1 ||
        !is_shaped_like(std::string_view(line).substr(line.size() - 8), ".000000>")) {
        return -1;
    }
    return strtod(line.c_str() + at + 2, nullptr);
}

// The first line that contains `what`, or an empty one.
inline std::string line_with(const std::string& text, const std::string& what) {
    for (const std::string& line : lines_of(text)) {
        if (line.find(what) != std::string::npos) {
            return line;
        }
    }
    return "";
}

// Every line that is not empty begins with a time.
inline void expect_timed(const std::string& text) {
    for (const std::string& line : lines_of(text)) {
        EXPECT_TRUE(line.empty() || has_time(line)) << line;
    }
}
