// The leak monitor: watches all processes for descriptors and children that run away.
//
// Each round samples every process, prints a line on standard error for each score that has jumped and
// replaces the status file. A monitor belongs to one thread.
#pragma once

#include <stdint.h>

struct ehash;
struct process_record;

struct monitor {
    const char* root;         // the proc file system that is watched; borrowed
    const char* status_path;  // where the status file goes, null for none; borrowed
    ehash* table;             // the process_record of each process
    uint32_t round;           // the next round's number, from 1; wraps round
};

// The most processes that one round looks at.
constexpr int monitor_capacity = 1024;

// A monitor of /proc, or of the proc file system at `root`, whose status file is at `path` (null: there is
// none). Both texts are borrowed and must live as long as the monitor. Null when there is no memory.
monitor* monitor_create(const char* path);
monitor* monitor_create_at(const char* root, const char* path);

// One round. A status file that can't be written is left as it is, silently. Processes that vanish meanwhile
// are dropped in this round or the next.
void monitor_run(monitor* m);

// Null is accepted.
void monitor_destroy(monitor* m);

// Thread entry of the daemon's monitor: a round an hour at idle priority, for ever. The argument is not used.
// Returns only when the thread can't be given that priority.
void* monitor_thread_run(void* unused);
