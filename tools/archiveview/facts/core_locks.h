// Which thread has the lock that another one waits for, and deadlocks.
#pragma once

#include <vector>

#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_threads.h"

namespace archiveview {

// Fills in the owners of locks. `waits` are those of the threads.
void core_locks_read(const core_notes& notes, const core_machine& machine, const core_memory& memory,
                     const std::vector<futex_wait>& waits, core_facts* facts);

// Finds threads that wait for one another, or for one that has ended.
void core_deadlocks_find(const std::vector<futex_wait>& waits, core_facts* facts);

}  // namespace archiveview
