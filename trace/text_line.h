// A line of text that is built up in a buffer of fixed size.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

// What does not fit is left out but counted, as with snprintf: `length` below `size` means that the text is
// whole. The text is always ended by a NUL where `size` is not 0.
struct text_line {
    char* buf;  // borrowed
    size_t size;
    size_t length = 0;

    size_t room() const { return length < size ? size - length : 0; }
};

void text_put(text_line* line, std::string_view text);
void text_put(text_line* line, char c);
void text_put_decimal(text_line* line, long value);            // %ld
void text_put_unsigned(text_line* line, unsigned long value);  // %lu
void text_put_hex(text_line* line, unsigned long value);       // %lx
