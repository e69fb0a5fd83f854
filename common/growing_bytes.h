// A buffer that grows while bytes are appended.
#pragma once

#include <stddef.h>

#include "common/unique_fd.h"

struct growing_bytes {
    malloc_array<char> data;  // null while nothing was appended
    size_t length = 0;
    size_t capacity = 0;
};

// Appends a copy of `length` bytes. Returns false, with the buffer unchanged, if memory runs out.
bool growing_append(growing_bytes* to, const void* bytes, size_t length);
