// A line of text in a buffer of fixed size.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

// Text that does not fit is cut but counted, as by snprintf: the line is whole if `length` is below `size`.
// The text always ends in a NUL, unless `size` is 0.
struct text_line {
    char* buf;  // borrowed
    size_t size;
    size_t length = 0;

    // The bytes that are still free, one of them for the NUL.
    size_t left() const { return length < size ? size - length : 0; }
};

void text_append(text_line* line, std::string_view text);
void text_append(text_line* line, char c);
void text_append_decimal(text_line* line, long value);            // %ld
void text_append_unsigned(text_line* line, unsigned long value);  // %lu
void text_append_hex(text_line* line, unsigned long value);       // %lx
