// What is known of single system calls.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

namespace archiveview {

constexpr bool trace_is_one_of(std::string_view call, const auto& calls) {
    return std::ranges::find(calls, call) != std::end(calls);
}

enum class transfer_direction { none, read, write };

// Whether a call moves bytes through the descriptor that is its first argument. Its result is their number.
transfer_direction trace_direction_of(std::string_view call);

// Whether a call waits for others by design, so that a long time in it is no news.
bool trace_is_wait(std::string_view call);

}  // namespace archiveview
