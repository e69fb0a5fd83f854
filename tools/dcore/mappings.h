// The mappings of a process, from /proc/PID/smaps, or from /proc/PID/maps where the kernel has no smaps.
// Layout: proc(5).
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <string_view>

struct core_mapping {
    uint64_t start = 0, end = 0;  // addresses
    uint64_t offset = 0;          // in the file, in bytes
    bool readable = false, writable = false, executable = false, shared = false;
    bool is_file = false;      // of a file, with a name or without one any more; also shared memory
    bool deleted = false;      // the file has no name any more
    std::string path;          // or the name that the kernel has for it, such as "[heap]"
    bool has_details = false;  // what follows is known
    bool device = false;       // memory of a device
    bool do_not_dump = false;
    bool huge = false;  // of huge pages, which the numbers below do not count
    uint64_t resident_kb = 0, anonymous_kb = 0, swapped_kb = 0;
};

// Understands the line that begins a mapping; false, with nothing changed, for any other line.
bool mapping_parse_head(std::string_view line, core_mapping& mapping);

// Adds what a line behind the head says. Lines that say nothing of interest are ignored.
void mapping_parse_detail(std::string_view line, core_mapping& mapping);

// For one mapping without details: what its path says about devices.
void mapping_guess_details(core_mapping& mapping);

// Calls `take(mapping, cookie)` for each mapping of `pid`, in the order of addresses. Returns how many there
// were.
using mapping_taker = void (*)(const core_mapping& mapping, void* cookie);
size_t mappings_walk(pid_t pid, mapping_taker take, void* cookie);
