// Lines for a terminal, and numbers for people.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace archiveview {

class text_lines {
public:
    static constexpr size_t width = 100;  // characters

    // Adds a text in at most `limit` lines, broken between words. The first begins with `first`, the others
    // with `others`. What does not fit is replaced by "...", what is not printable by '?'. An empty text adds
    // nothing.
    void add(std::string_view text, std::string_view first, std::string_view others, size_t limit);
    void add_blank() { text_ += '\n'; }
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

// "62.7 MB"; of 1000 bytes, as disks and networks count.
std::string size_text(uint64_t bytes);
// "3 d 4 h", "2 min 5 s", "7 s"
std::string duration_text(double seconds);
// With one decimal place.
std::string decimal_text(double number);

}  // namespace archiveview
