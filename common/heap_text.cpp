#include "common/heap_text.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

constexpr size_t line_size = 512;
constexpr size_t ending_size = 64;

}  // namespace

void heap_text_add(heap_text* text, std::string_view piece) {
    growing_bytes* bytes = &text->bytes;
    size_t i = bytes->length;
    if (text->error == 0 && i + piece.size() > text->limit) {
        text->error = EFBIG;
    }
    if (text->error == 0 && !growing_append(bytes, piece.data(), piece.size())) {
        text->error = ENOMEM;
    }
    for (; i < bytes->length; i++) {
        char* c = &bytes->data[i];
        *c = static_cast<unsigned char>(*c) < ' ' && *c != '\n' ? ' ' : *c;
    }
}

void heap_text_print(heap_text* text, const char* format, ...) {
    char line[line_size];
    va_list values;
    va_start(values, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line before makes it
    vsnprintf(line, sizeof line, format, values);
    va_end(values);
    heap_text_add(text, line);
}

void heap_text_end(heap_text* text) {
    if (text->error == 0) {
        return;
    }
    char ending[ending_size];
    const int length = snprintf(ending, sizeof ending, "cut: %s\n", strerror(text->error));
    // The last line takes the place of others, so it needs no memory.
    size_t kept = std::max(text->bytes.length, ending_size) - ending_size;
    while (kept > 0 && text->bytes.data[kept - 1] != '\n') {
        kept--;
    }
    text->bytes.length = kept;
    (void)growing_append(&text->bytes, ending, static_cast<size_t>(length));
}
