// Writes single notes of an ELF file.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tools/dcore/stream.h"

// The length of a note with `content` bytes of content, including its header and padding.
uint64_t note_length(uint64_t content);

// Writes a note. `owner` is "CORE" or "LINUX".
void note_write(core_stream* stream, unsigned type, const char* owner, const void* content, size_t length);

// The same in parts: the header, then the caller writes `content` bytes, then the padding.
void note_begin(core_stream* stream, unsigned type, const char* owner, uint64_t content);
void note_end(core_stream* stream, uint64_t content);
