// The leak monitor watches all processes for growing numbers of descriptors and children.
//
// Each round samples every process, prints a line on standard error for each score that has jumped, and
// replaces the status file. A monitor is used by one thread at a time.
#pragma once

#include <stdint.h>

struct ehash;
struct process_record;

struct monitor {
    const char* root;         // the proc file system to watch; borrowed
    const char* status_path;  // the status file; null: none; borrowed
    ehash* table;             // the process_record of each process
    uint32_t round;           // number of the next round, from 1; wraps to 0
};

// The most processes that one round samples.
constexpr int monitor_capacity = 1024;

// Creates a monitor of /proc, or of the proc file system at `root`, with its status file at `path` (null: no
// status file). Both texts must outlive the monitor. Null if memory runs out.
monitor* monitor_create(const char* path);
monitor* monitor_create_at(const char* root, const char* path);

// Runs one round. A status file that cannot be replaced stays as it is, without a message. A process that
// ends during the round is dropped in this round or the next.
void monitor_run(monitor* m);

// Frees the monitor, which may be null.
void monitor_destroy(monitor* m);

// Thread entry of the daemon's monitor: one round an hour at idle priority. The argument is not used. Returns
// only if the thread cannot get that priority or memory runs out.
void* monitor_thread_run(void* unused);
