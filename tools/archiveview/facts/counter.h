// Differences of counters.
#pragma once

#include <stdint.h>

#include <optional>

namespace archiveview {

// How far a counter went from `first` to `second`, or nothing if it was reset. Many counters have 32 bits on
// a small device: one that was near its end, and did not go far, went on from 0.
constexpr std::optional<uint64_t> counter_difference(uint64_t first, uint64_t second) {
    constexpr uint64_t end = uint64_t{1} << 32;
    constexpr uint64_t far = end / 4;
    if (second >= first) {
        return second - first;
    }
    const uint64_t wrapped = end - first + second;
    return first < end && wrapped <= far ? std::optional(wrapped) : std::nullopt;
}

}  // namespace archiveview
