// How findings say numbers and names.
#pragma once

#include <stdint.h>

#include <concepts>
#include <string>
#include <string_view>

namespace archiveview {

inline std::string worded(std::string_view text) {
    return std::string(text);
}
template <std::integral Number>
std::string worded(Number number) {
    return std::to_string(number);
}

// All parts as one text: said("pid ", 412).
template <typename... Parts>
std::string said(const Parts&... parts) {
    return (worded(parts) + ...);
}

// "1 socket", "2 sockets"; `plural` if it is not made with an "s".
std::string counted(uint64_t count, std::string_view noun, std::string_view plural = {});

// With one digit after the point below ten, and none above.
std::string rounded(double number);

// "512 KiB", "1.5 MiB"
std::string size_of_kb(double kb);

// "40 s", "12 min", "3 h"
std::string span_of(double seconds);

}  // namespace archiveview
