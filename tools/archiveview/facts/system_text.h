// The member system.txt of full archives.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/look.h"

namespace archiveview {

struct file_system {
    std::string device, folder, type, options;
    bool is_answering = true;  // of a mount that does not answer, no sizes are known
    uint64_t total_kb = 0, used_kb = 0, available_kb = 0, free_inodes = 0;
};

struct device_facts {
    std::string host, kernel, machine, processor, command_line, version, clock;
    unsigned processors = 0;
    uint64_t memory_kb = 0;
    double uptime_seconds = 0;
    std::string load;
    std::vector<std::string> addresses;   // "eth0 192.0.2.2/24"
    std::vector<std::string> neighbours;  // lines
    std::vector<std::string> routes;      // lines
    std::vector<file_system> file_systems;
    std::vector<std::string>
        errors;  // what the device could not tell of itself: "/proc/loadavg: Permission denied"
};

void system_text_parse(device_facts* facts, std::string_view text);

// Adds what a look at /proc tells and `facts` lacks: archives of the usual form have no system.txt, and no
// system.txt names the processor.
void device_add_look(device_facts* facts, const look& l);

}  // namespace archiveview
