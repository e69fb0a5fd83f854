// Finds the pages of a mapping that have content: those in memory or swapped out.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"
#include "tools/dcore/mappings.h"

struct page_map {
    pid_t tid = 0;
    unique_fd file;        // /proc/TID/pagemap; if it is missing, every page counts as having content
    bool can_scan = true;  // the kernel finds the pages itself (since Linux 6.7)
};

page_map residence_open(pid_t tid);

// Calls `take(from, to, cookie)` for ranges of addresses with content, in order. Adjacent ranges are
// possible.
using range_taker = void (*)(uint64_t from, uint64_t to, void* cookie);
void residence_walk(page_map* map, const core_mapping& mapping, range_taker take, void* cookie);
