#include "trace/text_line.h"

#include <string.h>

#include <algorithm>
#include <charconv>

namespace {

template <typename Number>
void append_number(text_line* line, Number value, int base) {
    char digits[24];
    std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
    text_append(line, std::string_view(digits, static_cast<size_t>(end.ptr - digits)));
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
    append_number(line, value, 10);
}

void text_append_unsigned(text_line* line, unsigned long value) {
    append_number(line, value, 10);
}

void text_append_hex(text_line* line, unsigned long value) {
    append_number(line, value, 16);
}
