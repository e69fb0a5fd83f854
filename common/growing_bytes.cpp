#include "common/growing_bytes.h"

#include <string.h>

#include <algorithm>

namespace {

constexpr size_t first_capacity = 4096;

}  // namespace

bool growing_append(growing_bytes* to, const void* bytes, size_t length) {
    if (length > to->capacity - to->length) {
        const size_t capacity = std::max(2 * to->capacity, to->length + length + first_capacity);
        char* grown = static_cast<char*>(realloc(to->data.get(), capacity));
        if (!grown) {
            return false;
        }
        (void)to->data.release();  // realloc has freed it
        to->data.reset(grown);
        to->capacity = capacity;
    }
    if (length > 0) {
        memcpy(to->data.get() + to->length, bytes, length);
        to->length += length;
    }
    return true;
}
