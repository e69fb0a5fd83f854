// The mappings of a process, from /proc/PID/smaps, or from /proc/PID/maps on a kernel without smaps.
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
    bool is_file = false;      // of a file, even one that was deleted; also for shared memory
    bool is_deleted = false;   // the file was deleted
    std::string path;          // or the kernel's name for it, such as "[heap]"
    bool has_details = false;  // the fields below are known
    bool is_device = false;    // memory of a device
    bool do_not_dump = false;
    bool is_huge = false;  // of huge pages, which the numbers below do not count
    uint64_t resident_kb = 0, anonymous_kb = 0, swapped_kb = 0;
};

// Parses the first line of a mapping. Returns false for any other line.
bool mapping_parse_head(std::string_view line, core_mapping* mapping);

// Adds the details from one of the mapping's other lines. Ignores lines that it does not need.
void mapping_add_detail(core_mapping* mapping, std::string_view line);

// Guesses from the path whether a mapping without details is memory of a device.
void mapping_guess_details(core_mapping* mapping);

// Calls `take(mapping, cookie)` for each mapping of `pid`, in the order of addresses. Returns their number.
using mapping_taker = void (*)(const core_mapping& mapping, void* cookie);
size_t mappings_walk(pid_t pid, mapping_taker take, void* cookie);
