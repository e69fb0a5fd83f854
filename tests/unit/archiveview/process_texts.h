// Texts about processes as the kernel and the device write them.
#pragma once

#include <string>

#include "tools/archiveview/facts/processes.h"

struct stat_values {
    int pid = 5;
    std::string name = "camera";
    char state = 'S';
    int parent = 1;
    unsigned user_ticks = 0, system_ticks = 0;
    unsigned threads = 1;
    unsigned start_ticks = 1000;
    unsigned resident_pages = 0;
};

inline std::string stat_text(const stat_values& v) {
    return std::to_string(v.pid) + " (" + v.name + ") " + v.state + " " + std::to_string(v.parent) +
           " 5 5 0 -1 4194304 1 2 3 4 " + std::to_string(v.user_ticks) + " " +
           std::to_string(v.system_ticks) + " 0 0 20 0 " + std::to_string(v.threads) + " 0 " +
           std::to_string(v.start_ticks) + " 4096 " + std::to_string(v.resident_pages) +
           " 18446744073709551615 0 0\n";
}

inline std::string status_text(unsigned resident_kb, unsigned uid = 0) {
    const std::string user = std::to_string(uid);
    return "Name:\tcamera\nUid:\t" + user + "\t" + user + "\t" + user + "\t" + user +
           "\nVmSize:\t9000 kB\nVmRSS:\t    " + std::to_string(resident_kb) + " kB\nThreads:\t1\n";
}

inline void add_stat(archiveview::process_list* list, int look, const stat_values& values) {
    processes_add_look_file(list, look, values.pid, "stat", stat_text(values));
}

inline const archiveview::process_facts& process_of(const archiveview::process_list& list, int pid) {
    static const archiveview::process_facts none;
    const archiveview::process_facts* process = list.find(pid);
    return process ? *process : none;
}
