// What the threads of a core were doing, from their registers.
#pragma once

#include <stdint.h>

#include <vector>

#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_memory.h"
#include "tools/archiveview/facts/core_notes.h"

namespace archiveview {

// A thread's wait for a futex.
struct futex_wait {
    size_t thread = 0;  // its index
    uint64_t address = 0;
    uint32_t operation = 0;  // as the system call takes it
    uint32_t value = 0;      // that the word had when the wait began
    bool has_timeout = false;
};

constexpr size_t mutex_bytes = 24;  // of the C library's mutex, up to what is read of it

// Asks for the memory that core_threads_read() looks at.
void core_threads_want(const core_notes& notes, const core_machine& machine, core_memory* memory);

// Fills in the threads. Returns their waits for a futex.
std::vector<futex_wait> core_threads_read(const core_notes& notes, const core_machine& machine,
                                          const core_memory& memory, core_facts* facts);

}  // namespace archiveview
