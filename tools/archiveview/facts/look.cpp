#include "tools/archiveview/facts/look.h"

#include <algorithm>
#include <cmath>

#include "tools/archiveview/facts/look_files.h"
#include "tools/archiveview/facts/look_settings.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// The first line, which may be cut.
std::string line_of(std::string_view text) {
    return std::string(trimmed(text.substr(0, std::min(text.find('\n'), line_limit))));
}

constexpr struct {
    std::string_view name;
    void (*read)(look* l, std::string_view text);
} files[] = {
    {"stat", look_read_stat},
    {"meminfo", look_read_meminfo},
    {"vmstat", look_read_vmstat},
    {"interrupts", look_read_interrupts},
    {"softirqs", look_read_softirqs},
    {"slabinfo", look_read_slabinfo},
    {"diskstats", look_read_diskstats},
    {"net/dev", look_read_net_dev},
    {"net/snmp", look_read_snmp},
    {"net/netstat", look_read_snmp},
    {"net/snmp6", look_read_snmp6},
    {"uptime", look_read_uptime},
    {"cpuinfo", look_read_cpuinfo},
    {"mounts", look_read_mounts},
    {"modules", look_read_modules},
    {"loadavg", [](look* l, std::string_view text) { l->load = line_of(text); }},
    {"version", [](look* l, std::string_view text) { l->version = line_of(text); }},
    {"cmdline", [](look* l, std::string_view text) { l->command_line = line_of(text); }},
};

}  // namespace

bool look_add(look* l, std::string_view name, std::string_view text) {
    if (name.starts_with("sys/")) {
        const bool is_known = look_read_setting(l, name, text);
        l->is_present |= is_known;
        return is_known;
    }
    const auto* found = std::ranges::find(files, name, [](const auto& file) { return file.name; });
    if (found == std::end(files)) {
        return false;
    }
    found->read(l, text.substr(0, text_limit));
    l->is_present = true;
    return true;
}

void look_read_uptime(look* l, std::string_view text) {
    l->uptime_seconds = l->idle_seconds = 0;
    for_each_whole_line(text.substr(0, line_limit), [&](std::string_view line) {
        for (double* seconds : {&l->uptime_seconds, &l->idle_seconds}) {
            const double value = take_number<double>(&line);
            *seconds = std::isfinite(value) && value > 0 ? value : 0;
        }
    });
}

}  // namespace archiveview
