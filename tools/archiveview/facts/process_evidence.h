// What single members say about a process, before it is joined.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <optional>
#include <string>

#include "proc/proc_stat.h"
#include "tools/archiveview/facts/descriptors.h"

namespace archiveview {

struct thread_facts {
    int tid = 0;
    std::string name;
    char state = '?';
    std::string wait_channel;    // the kernel's function it sleeps in
    uint64_t ticks = 0;          // processor time since its start, of the last look that has it
    int64_t ticks_between = -1;  // processor time between the looks; -1 if unknown
    uint64_t start_ticks = 0;    // after boot; tells the thread from others that had its tid
};

// The files of a process in one look.
struct process_look {
    bool is_present = false;
    std::optional<proc_stat> stat;
    int64_t resident_kb = -1;  // -1: unknown
    std::optional<uint32_t> uid;
    bool has_status = false;
    bool has_memory = false;
    std::optional<bool> is_kernel_thread;  // kernels before 6.5 do not tell
    std::string command, program, wait_channel;
    uint64_t descriptor_bound = 0;
    descriptor_list links;
    std::map<int, thread_facts> threads;
};

// The line of a process in processes.txt.
struct process_row {
    int parent = 0;
    std::string user, name, command;
    char state = '?';
    bool has_gone = false;
    unsigned threads = 0;
    double cpu_percent = -1;  // between the looks, or since its start if that was later; -1 if unknown
    bool was_in_both = false;
    int64_t resident_kb = -1, resident_growth_kb = 0;
    int64_t descriptors = -1, descriptor_growth = 0;  // -1 if unknown
};

struct process_evidence {
    std::array<process_look, 2> looks;
    std::optional<process_row> row;
    descriptor_list map;  // of the core's folder
    std::string map_name;
};

}  // namespace archiveview
