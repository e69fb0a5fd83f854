// Processes, from all members that name one: looks, cores, descriptor maps, the monitor's report.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/look.h"

namespace archiveview {

struct descriptor {
    int number = -1;
    std::string target;  // "socket:[4711]", "/var/log/messages (deleted)"
    uint64_t inode = 0;  // of sockets and pipes
};

struct descriptor_counts {
    unsigned total = 0, file = 0, socket = 0, pipe = 0, other = 0;
};

struct thread_facts {
    int tid = 0;
    std::string name;
    char state = '?';
    std::string wait_channel;    // the kernel's function it sleeps in
    uint64_t ticks = 0;          // processor time since its start, of the last look that has it
    int64_t ticks_between = -1;  // processor time between the looks; -1 if unknown
};

// The monitor's report on a process.
struct monitor_report {
    int descriptor_score = 0;
    int fork_score = 0;
    int children = 0;
    std::vector<int> descriptors, sockets, pipes;  // now, and 1, 2, 3 rounds ago
};

struct process_facts {
    int pid = 0;
    int parent = 0;
    std::string name;     // the kernel's, or that of the core's folder
    std::string command;  // with its arguments
    std::string program;  // path of the executable
    std::string user;
    char state = '?';  // R, S, D, T, t, Z, X; '?' if unknown
    bool in_first_look = false, in_second_look = false;
    bool is_kernel_thread = false;
    unsigned thread_count = 0;
    std::vector<thread_facts> threads;
    double cpu_percent = -1;                           // of one processor, between the looks; -1 if unknown
    int64_t resident_kb = -1, resident_growth_kb = 0;  // -1 if unknown
    int64_t descriptor_growth = 0;                     // between the looks
    uint64_t descriptor_bound = 0;                     // the soft limit on open files; 0 if unknown
    std::vector<descriptor> descriptors;
    descriptor_counts counts;
    monitor_report monitor;
    unsigned children = 0;     // processes of this archive whose parent it is
    std::string wait_channel;  // of its first thread
    int core = -1;             // index of its core, or -1
};

struct process_list {
    std::map<int, process_facts> by_pid;

    // The process, which is added if it is new; null if there are too many.
    process_facts* get(int pid);
    const process_facts* find(int pid) const;
};

// Adds a file of a look at processes: `look` is 0 or 1, `name` is "stat", "status", "links", "limits",
// "wchan", "cmdline", "task/TID/stat" and so on.
void processes_add_look_file(process_list* list, int look, int pid, std::string_view name,
                             std::string_view text);

// Adds the table processes.txt.
void processes_add_table(process_list* list, std::string_view text);

// Adds a descriptor map, the long listing of /proc/PID/fd.
void processes_add_descriptor_map(process_list* list, int pid, std::string_view folder_name,
                                  std::string_view text);

// Adds the monitor's report.
void processes_add_monitor(process_list* list, std::string_view text);

// Joins what was added: counts of descriptors, children, processor time between the looks.
void processes_finish(process_list* list, double span_seconds);

}  // namespace archiveview
