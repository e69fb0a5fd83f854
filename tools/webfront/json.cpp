#include "tools/webfront/json.h"

#include <stdint.h>
#include <stdio.h>

#include <algorithm>

namespace {

// The ranges of a character's first byte, with what may follow it: RFC 3629, section 4. The second byte's
// range keeps out overlong forms, surrogates and what lies behind U+10FFFF.
constexpr struct {
    uint8_t first, last;
    uint8_t second_first, second_last;
    uint8_t length;
} sequences[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool is_between(char byte, uint8_t first, uint8_t last) {
    auto value = static_cast<uint8_t>(byte);
    return first <= value && value <= last;
}

// How many bytes the character at the beginning of `text` has, whose first byte is not ASCII; 0: it is none.
size_t character_length(std::string_view text) {
    for (const auto& row : sequences) {
        if (is_between(text[0], row.first, row.last)) {
            bool whole = text.size() >= row.length &&
                         is_between(text[1], row.second_first, row.second_last) &&
                         std::ranges::all_of(text.substr(2, row.length - 2U),
                                             [](char byte) { return is_between(byte, 0x80, 0xbf); });
            return whole ? row.length : 0;
        }
    }
    return 0;
}

void append_ascii(std::string& out, char c) {
    if (c == '"' || c == '\\') {
        out.append({'\\', c});
    } else if (c < ' ' || c == 0x7f) {
        char escape[sizeof "\\u0000"];
        (void)snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
        out += escape;
    } else {
        out += c;
    }
}

}  // namespace

std::string webfront_json_string(std::string_view bytes) {
    std::string out = "\"";
    while (!bytes.empty()) {
        size_t length = 1;
        if (is_between(bytes[0], 0, 0x7f)) {
            append_ascii(out, bytes[0]);
        } else if ((length = character_length(bytes)) > 0) {
            out.append(bytes.substr(0, length));
        } else {
            out += "\\ufffd";
            length = 1;
        }
        bytes.remove_prefix(length);
    }
    return out += '"';
}
