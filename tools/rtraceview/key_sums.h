// Text of lines like "MemFree:   1234 kB", as one value for each key.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What becomes of the values that a key has in one text.
enum class key_rule {
    sum,
    largest,  // of sizes that do not add up, such as those of pages
    text      // of what is no amount: names, and masks, whose digits are hexadecimal or octal
};

// The text comes in pieces that may end anywhere. Keys are what begins a line with a capital letter and ends
// with a colon; lines of other kinds and without a number are passed over. Keys stay known from one text to
// the next, since the kernel writes the same ones over and over, and in the same order.
class key_sums {
public:
    struct entry {
        std::string key;
        key_rule rule = key_rule::sum;
        uint64_t sum = 0;  // or the largest
        std::string text;
        bool is_present = false;  // in this text
        bool is_kb = false;
    };
    static constexpr size_t keys_limit = 512;   // further ones are passed over
    static constexpr size_t line_limit = 4096;  // of a line that is cut by a piece's end

    void begin();
    void add(std::string_view piece);
    void finish();  // the last line may have no newline

    // In the order in which they were first seen.
    const std::vector<entry>& entries() const { return entries_; }

private:
    void add_line(std::string_view line);
    void add_value(entry* known, std::string_view key, std::string_view value);
    entry* find(std::string_view key);

    std::vector<entry> entries_;
    size_t expected_ = 0;  // where the next line's key is likely to be
    std::string pending_;
};
