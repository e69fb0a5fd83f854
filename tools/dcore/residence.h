// Which pages of a mapping have content: those in memory or swapped out.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"
#include "tools/dcore/mappings.h"

struct page_map {
    pid_t tid = 0;
    unique_fd file;        // /proc/TID/pagemap; when it can't be opened, every page counts as having content
    bool can_scan = true;  // the kernel skips empty stretches by itself (since Linux 6.7)
};

page_map residence_open(pid_t tid);

// Calls `take(from, to, cookie)` for stretches of addresses with content, in their order; some may touch.
using stretch_taker = void (*)(uint64_t from, uint64_t to, void* cookie);
void residence_walk(page_map& map, const core_mapping& mapping, stretch_taker take, void* cookie);
