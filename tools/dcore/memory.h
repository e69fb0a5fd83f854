// Reads the memory of the process that is dumped.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <span>

#include "common/unique_fd.h"

struct target_memory {
    pid_t tid = 0;   // a living thread of the process
    unique_fd file;  // its memory file; still that of this memory after the process has run another program
    bool at_once = true;  // process_vm_readv works and is allowed
};

// A range of addresses.
struct memory_piece {
    uint64_t address;
    size_t length;
};

target_memory memory_open(pid_t tid);

// Must be called before the process runs on: it may then become another program, and only the file still
// reads the memory that belongs to this one.
void memory_use_file(target_memory* memory);

// Copies the pieces to `out`, one after the other. Pages that cannot be read become zeros.
void memory_read(target_memory* memory, std::span<const memory_piece> pieces, unsigned char* out);
