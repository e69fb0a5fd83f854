#include "tools/archiveview/source/printable.h"

#include <stdint.h>

#include "common/ascii.h"

namespace archiveview {

namespace {

struct lead_byte {
    unsigned char mask, value;
    size_t length;
    uint32_t smallest;  // character of that length
};

constexpr lead_byte lead_bytes[] = {
    {0xe0, 0xc0, 2, 0xa0},  // from the first character after the control characters
    {0xf0, 0xe0, 3, 0x800},
    {0xf8, 0xf0, 4, 0x10000},
};

// Bidirectional controls would show a text in another order than it has.
bool is_shown(uint32_t character) {
    return !(character >= 0xd800 && character < 0xe000) && character < 0x110000 &&
           !(character >= 0x200b && character <= 0x200f) && !(character >= 0x2028 && character <= 0x202e) &&
           !(character >= 0x2060 && character <= 0x206f) && character != 0xfeff;
}

// How many bytes the character at the start of `text` has, or 0 if it is not to be shown.
size_t shown_length(std::string_view text) {
    const unsigned char first = static_cast<unsigned char>(text.front());
    if (first < 0x80) {
        return is_ascii_printable(text.front()) ? 1 : 0;
    }
    for (const lead_byte& lead : lead_bytes) {
        if ((first & lead.mask) != lead.value || text.size() < lead.length) {
            continue;
        }
        uint32_t character = first & static_cast<unsigned char>(~lead.mask);
        for (size_t i = 1; i < lead.length; i++) {
            const unsigned char next = static_cast<unsigned char>(text[i]);
            if ((next & 0xc0) != 0x80) {
                return 0;
            }
            character = character << 6 | (next & 0x3f);
        }
        return character >= lead.smallest && is_shown(character) ? lead.length : 0;
    }
    return 0;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const size_t length = shown_length(text);
        shown.append(length == 0 ? "?" : text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return shown;
}

}  // namespace archiveview
