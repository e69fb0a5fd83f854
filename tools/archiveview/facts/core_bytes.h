// Reads numbers of a core, all of which are little endian, as is every machine this program runs on.
#pragma once

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <span>
#include <string>
#include <string_view>

namespace archiveview {

static_assert(std::endian::native == std::endian::little);

// True if `bytes` has a range of this place and length.
constexpr bool has_range(std::span<const char> bytes, uint64_t offset, uint64_t length) {
    return offset <= bytes.size() && length <= bytes.size() - offset;
}

// The value at `offset`; zeros if it is not there.
template <typename Value>
Value value_at(std::span<const char> bytes, uint64_t offset) {
    Value value = {};
    if (has_range(bytes, offset, sizeof value)) {
        memcpy(&value, bytes.data() + offset, sizeof value);
    }
    return value;
}

// A word of the machine: 8 bytes, or 4.
inline uint64_t word_at(std::span<const char> bytes, uint64_t offset, size_t word_bytes) {
    return word_bytes == sizeof(uint64_t) ? value_at<uint64_t>(bytes, offset)
                                          : value_at<uint32_t>(bytes, offset);
}

// The end of a range, or the largest number if there is none so large.
constexpr uint64_t end_of(uint64_t start, uint64_t length) {
    return length > UINT64_MAX - start ? UINT64_MAX : start + length;
}

// "0x1234".
inline std::string hexadecimal(uint64_t number) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    do {
        text += digits[number % 16];
        number /= 16;
    } while (number > 0);
    std::ranges::reverse(text);
    return "0x" + text;
}

}  // namespace archiveview
