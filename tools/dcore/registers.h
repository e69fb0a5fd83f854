// Reads the registers and signals of held threads.
#pragma once

#include <stddef.h>

#include "tools/dcore/threads.h"

// Reads the registers and signals of all threads, and keeps their interrupted system calls (arch_keep_call).
// For a thread that is not stopped, reads its position. Returns 0, or EMEDIUMTYPE as threads_stop() does.
int registers_read_all(thread_hold* hold);

// Reads another set of registers of a stopped thread into `out`. Returns its size in bytes, at most `size`; 0
// if the processor lacks the set or the thread is no longer stopped.
size_t registers_read_set(const held_thread& thread, unsigned type, void* out, size_t size);
