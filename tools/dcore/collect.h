// Looks through a process's mappings and plans its core file.
#pragma once

#include <sys/types.h>

#include "tools/dcore/layout.h"
#include "tools/dcore/memory.h"

// `tid`: a thread of the process, which stands still. `filter`: the bits of its coredump_filter file.
core_layout collect_layout(pid_t tid, target_memory& memory, uint64_t filter);
