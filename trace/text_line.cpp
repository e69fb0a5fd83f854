#include "trace/text_line.h"

#include <string.h>

#include <algorithm>

namespace {

// A loop of our own, since the library's takes half a kilobyte.
void append_number(text_line* line, unsigned long value, unsigned base) {
    char digits[24];
    char* const end = digits + sizeof digits;
    char* begin = end;
    do {
        *--begin = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    text_append(line, std::string_view(begin, static_cast<size_t>(end - begin)));
}

}  // namespace

void text_append(text_line* line, std::string_view text) {
    if (size_t left = line->left(); left > 0) {
        size_t count = std::min(text.size(), left - 1);
        memcpy(line->buf + line->length, text.data(), count);
        line->buf[line->length + count] = '\0';
    }
    line->length += text.size();
}

void text_append(text_line* line, char c) {
    text_append(line, std::string_view(&c, 1));
}

void text_append_decimal(text_line* line, long value) {
    auto magnitude = static_cast<unsigned long>(value);
    if (value < 0) {
        text_append(line, '-');
        magnitude = -magnitude;
    }
    append_number(line, magnitude, 10);
}

void text_append_unsigned(text_line* line, unsigned long value) {
    append_number(line, value, 10);
}

void text_append_hex(text_line* line, unsigned long value) {
    append_number(line, value, 16);
}
