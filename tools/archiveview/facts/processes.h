// Processes, from all members that name one: looks, cores, descriptor maps, the monitor's report.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/descriptors.h"
#include "tools/archiveview/facts/look.h"
#include "tools/archiveview/facts/process_evidence.h"

namespace archiveview {

// The monitor's report on a process.
struct monitor_report {
    int descriptor_score = 0;
    int fork_score = 0;
    int children = 0;
    std::vector<int> descriptors, sockets, pipes;  // now, and up to 3 rounds ago, as far as it was there then
};

struct process_facts {
    int pid = 0;
    int parent = 0;
    std::string name;     // the kernel's, or that of the core's folder
    std::string command;  // with its arguments
    std::string program;  // path of the executable
    std::string user;
    char state = '?';  // R, S, D, T, t, Z, I, X; '?' if unknown
    // At the first look: the trace may have resumed a stopped process since.
    char first_state = '?';
    bool in_first_look = false, in_second_look = false;
    bool has_gone = false;     // it ended between the looks; its state is then X
    uint64_t start_ticks = 0;  // after boot, in hundredths of a second
    bool is_kernel_thread = false;
    unsigned thread_count = 0;
    std::vector<thread_facts> threads;
    double cpu_percent = -1;                           // of one processor, between the looks; -1 if unknown
    int64_t resident_kb = -1, resident_growth_kb = 0;  // -1 if unknown
    int64_t descriptor_growth = 0;                     // between the looks
    growth_by_kind descriptor_growth_by_kind;          // the same by kinds
    uint64_t descriptor_bound = 0;                     // the soft limit on open files; 0 if unknown
    std::vector<descriptor> descriptors;
    descriptor_counts counts;             // more than the descriptors if those were too many
    std::vector<uint64_t> first_sockets;  // inodes of the sockets that it had in the first look
    monitor_report monitor;
    unsigned children = 0;     // processes of this archive whose parent it is, without those that have gone
    std::string wait_channel;  // of its first thread
    int core = -1;             // index of its core, or -1
};

struct process_list {
    std::map<int, process_facts> by_pid;
    std::map<int, process_evidence> evidence;  // what processes_finish joins and then drops
    size_t descriptor_bytes = 0;               // memory of all descriptors; bounded by descriptor_bytes_limit

    // The process, which is added if it is new; null if there are too many, or if `pid` is not above 0.
    process_facts* get(int pid);
    const process_facts* find(int pid) const;
};

// Adds a file of a look at processes: `look` is 0 or 1, `name` is "stat", "status", "links", "limits",
// "wchan", "cmdline", "task/TID/stat" and so on.
void processes_add_look_file(process_list* list, int look, int pid, std::string_view name,
                             std::string_view text);

// Adds the table processes.txt.
void processes_add_table(process_list* list, std::string_view text);

// Adds a descriptor map, the long listing of /proc/PID/fd. `folder_name` is "NAME.PID".
void processes_add_descriptor_map(process_list* list, int pid, std::string_view folder_name,
                                  std::string_view text);

// Adds the monitor's report.
void processes_add_monitor(process_list* list, std::string_view text);

// Joins what was added: counts of descriptors, children, processor time between the looks.
void processes_finish(process_list* list, double span_seconds);

}  // namespace archiveview
