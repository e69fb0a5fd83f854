// Tests of ASCII characters, as the C locale has them.
#pragma once

constexpr bool is_ascii_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool is_ascii_digit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool is_ascii_printable(char c) {
    return c >= ' ' && c <= '~';
}

// The value of a digit, of either case, or -1.
constexpr int ascii_hex_value(char c) {
    if (is_ascii_digit(c)) {
        return c - '0';
    }
    const int letter = (c | 0x20) - 'a';
    return letter >= 0 && letter < 6 ? letter + 10 : -1;
}
