// Plans a core file from a process's mappings.
#pragma once

#include <sys/types.h>

#include "tools/dcore/layout.h"
#include "tools/dcore/memory.h"

// `tid` is a stopped thread of the process. `filter` holds the bits of its coredump_filter file.
core_layout collect_layout(target_memory* memory, pid_t tid, uint64_t filter);
