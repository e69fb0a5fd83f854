// The readers of single files of /proc. Each replaces what an earlier file of its kind gave.
#pragma once

#include <string_view>

#include "tools/archiveview/facts/look.h"

namespace archiveview {

void look_read_stat(look* l, std::string_view text);
void look_read_meminfo(look* l, std::string_view text);
void look_read_vmstat(look* l, std::string_view text);
void look_read_interrupts(look* l, std::string_view text);
void look_read_softirqs(look* l, std::string_view text);
void look_read_slabinfo(look* l, std::string_view text);
void look_read_diskstats(look* l, std::string_view text);
void look_read_net_dev(look* l, std::string_view text);
void look_read_snmp(look* l, std::string_view text);  // and netstat, which has the same form
void look_read_snmp6(look* l, std::string_view text);
void look_read_uptime(look* l, std::string_view text);
void look_read_cpuinfo(look* l, std::string_view text);
void look_read_mounts(look* l, std::string_view text);
void look_read_modules(look* l, std::string_view text);

// Adds or replaces a counter, within counter_limit.
void look_set_counter(std::map<std::string, uint64_t>* counters, std::string name, uint64_t value);

}  // namespace archiveview
