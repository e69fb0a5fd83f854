// Sums over the lines of a text like "MemFree:   1234 kB", one for each key.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How the values of a key in one text are combined.
enum class key_rule {
    sum,
    largest,  // for sizes that must not be added, such as page sizes
    text      // for names, and for masks, whose digits are hexadecimal or octal
};

// The text comes in pieces that may end anywhere. A key starts a line with a capital letter and ends with a
// colon. Other lines, and lines without a number, are skipped. Keys are remembered for the next text: the
// kernel writes the same ones again, in the same order.
class key_sums {
public:
    struct entry {
        std::string key;
        key_rule rule = key_rule::sum;
        uint64_t sum = 0;  // or the largest value
        std::string text;
        bool is_present = false;  // in this text
        bool is_kb = false;
    };
    static constexpr size_t keys_limit = 512;   // further keys are skipped
    static constexpr size_t line_limit = 4096;  // for a line that is split between pieces

    void begin();
    void add(std::string_view piece);
    void finish();  // the last line may have no newline

    // In the order in which the keys appeared first.
    const std::vector<entry>& entries() const { return entries_; }

private:
    void add_line(std::string_view line);
    void add_value(entry* known, std::string_view key, std::string_view value);
    entry* find(std::string_view key);

    std::vector<entry> entries_;
    size_t expected_ = 0;  // the index where the next line's key probably is
    std::string pending_;
};
