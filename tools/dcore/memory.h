// The memory of the process that is dumped.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <span>

#include "common/unique_fd.h"

struct target_memory {
    pid_t tid = 0;   // a living thread of the process
    unique_fd file;  // its memory file, which stays that of this memory when the process runs another program
    bool at_once = true;  // large reads without the file are possible and allowed
};

// A stretch of memory.
struct memory_piece {
    uint64_t address;
    size_t length;
};

target_memory memory_open(pid_t tid);

// From now on the process may run, and so may become another program: reads only what belongs to this memory.
void memory_use_file(target_memory& memory);

// Fills `out` with the pieces, one behind the other, whose lengths add up to what it has room for. What can't
// be read becomes zeros, page by page.
void memory_read(target_memory& memory, std::span<const memory_piece> pieces, unsigned char* out);
