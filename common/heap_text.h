// A text on the heap that grows as it is written, up to a limit.
#pragma once

#include <stddef.h>

#include <string_view>

#include "common/growing_bytes.h"

// Text that does not fit is dropped, with all that follows it: what is kept is the beginning.
struct heap_text {
    size_t limit;  // the most bytes that the text may have
    growing_bytes bytes = {};
    int error = 0;  // why text was dropped: EFBIG at the limit, or ENOMEM; 0: nothing was

    std::string_view view() const { return {bytes.data.get(), bytes.length}; }
};

// Appends `piece`, in which a control character other than a newline becomes a blank.
void heap_text_add(heap_text* text, std::string_view piece);

// The same, like printf. More than 511 bytes are cut.
[[gnu::format(printf, 2, 3)]] void heap_text_print(heap_text* text, const char* format, ...);

// If text was dropped, replaces the last 64 bytes, and the line that they begin in, by "cut: REASON".
void heap_text_end(heap_text* text);
