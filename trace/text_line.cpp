#include "trace/text_line.h"

#include <string.h>

#include <algorithm>
#include <charconv>

namespace {

template <typename Number>
void put_number(text_line* line, Number value, int base) {
    char digits[24];
    std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
    text_put(line, std::string_view(digits, static_cast<size_t>(end.ptr - digits)));
}

}  // namespace

void text_put(text_line* line, std::string_view text) {
    if (size_t room = line->room(); room > 0) {
        size_t count = std::min(text.size(), room - 1);
        memcpy(line->buf + line->length, text.data(), count);
        line->buf[line->length + count] = '\0';
    }
    line->length += text.size();
}

void text_put(text_line* line, char c) {
    text_put(line, std::string_view(&c, 1));
}

void text_put_decimal(text_line* line, long value) {
    put_number(line, value, 10);
}

void text_put_unsigned(text_line* line, unsigned long value) {
    put_number(line, value, 10);
}

void text_put_hex(text_line* line, unsigned long value) {
    put_number(line, value, 16);
}
