// Names as /proc/mounts and system.txt write them: a blank is "\040", a backslash is "\134".
#pragma once

#include <string>
#include <string_view>

namespace archiveview {

constexpr bool is_octal_digit(char c) {
    return c >= '0' && c <= '7';
}

// The name itself. A backslash without three octal digits after it stands for itself.
inline std::string octal_decoded(std::string_view text) {
    std::string name;
    while (!text.empty()) {
        const bool is_code = text.size() > 3 && text[0] == '\\' && is_octal_digit(text[1]) &&
                             is_octal_digit(text[2]) && is_octal_digit(text[3]);
        name +=
            is_code ? static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + text[3] - '0') : text[0];
        text.remove_prefix(is_code ? 4 : 1);
    }
    return name;
}

}  // namespace archiveview
