// Chooses the part of a mapping that goes into a core file. The rules are the kernel's (core(5),
// /proc/PID/coredump_filter).
#pragma once

#include <stdint.h>

#include "tools/dcore/mappings.h"

enum class core_content {
    left_out,  // no segment
    none,      // a segment without content
    head,      // the first page, if a program or library begins there
    touched,   // the pages that have memory
    whole,
};

// `filter` holds the bits of the process's coredump_filter file.
core_content filter_choose(const core_mapping& mapping, uint64_t filter);
