#include "tools/dcore/note_writer.h"

#include <string.h>

#include "tools/dcore/layout.h"

namespace {

constexpr size_t owner_size = 8;  // "CORE" and "LINUX" with their NUL, padded to a multiple of 4

uint64_t align(uint64_t length) {
    return (length + 3) & ~3ull;
}

}  // namespace

uint64_t note_length(uint64_t content) {
    return sizeof(core_nhdr) + owner_size + align(content);
}

void note_begin(core_stream* stream, unsigned type, const char* owner, uint64_t content) {
    char name[owner_size] = {};
    size_t length = strlen(owner) + 1;
    memcpy(name, owner, length);
    core_nhdr head = {static_cast<Elf32_Word>(length), static_cast<Elf32_Word>(content), type};
    stream_write(stream, &head, sizeof head);
    stream_write(stream, name, sizeof name);
}

void note_end(core_stream* stream, uint64_t content) {
    stream_write_zeros(stream, align(content) - content);
}

void note_write(core_stream* stream, unsigned type, const char* owner, const void* content, size_t length) {
    note_begin(stream, type, owner, length);
    stream_write(stream, content, length);
    note_end(stream, length);
}
