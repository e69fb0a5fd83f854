// What two looks at the machine's processes remember of each process, for the table of processes.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/growing_bytes.h"
#include "common/proc_path.h"
#include "proc/proc_stat.h"

struct process_sample {
    proc_stat stat;
    pid_t pid;
    uid_t uid;
    uint32_t resident_kb;
    int32_t descriptors;  // -1: unknown
    uint32_t command_at;  // in process_looks::commands
    uint32_t command_length;
    uint32_t taken_ms;  // after boot, modulo 2^32: 49 days
};

// Owned by the caller, all memory by the object.
struct process_looks {
    const char* root = proc_root;  // borrowed
    int count = 0;                 // looks so far
    int error = 0;                 // errno; not 0: one of the looks does not know all it should
    bool is_partial = false;       // a look has left out processes that may still exist
    growing_bytes samples[2];      // process_sample, by ascending pid
    growing_bytes commands;        // the command lines, one after the other; "[NAME]" without one
};
