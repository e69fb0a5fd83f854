// The member system.txt of full archives.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct device_facts {
    std::string host, kernel, machine, processor, command_line, version, clock;
    unsigned processors = 0;
    uint64_t memory_kb = 0;
    double uptime_seconds = 0;
    std::string load;
    std::vector<std::string> addresses;   // "eth0 192.0.2.2/24"
    std::vector<std::string> neighbours;  // lines
    std::vector<std::string> routes;      // lines
};

void system_text_parse(device_facts* facts, std::string_view text);

}  // namespace archiveview
