// Reads the memory of the process that is dumped.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <span>

#include "common/unique_fd.h"

struct target_memory {
    pid_t tid = 0;   // a living thread of the process
    unique_fd file;  // /proc/TID/mem; stays with this memory even if the process executes another program
    bool at_once = true;  // process_vm_readv works and is allowed
};

// A range of addresses.
struct memory_piece {
    uint64_t address;
    size_t length;
};

target_memory memory_open(pid_t tid);

// Reads only through the file from now on. Must be called before the process is resumed: it may then execute
// another program, and process_vm_readv would read the memory of that program.
void memory_use_file(target_memory* memory);

// Copies the pieces to `out`, one after the other. Pages that cannot be read become zeros.
void memory_read(target_memory* memory, std::span<const memory_piece> pieces, unsigned char* out);
