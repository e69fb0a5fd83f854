// One look at /proc, and what changed between two.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

// Since boot, in ticks of a hundredth of a second.
struct cpu_ticks {
    uint64_t user = 0;  // with "nice"
    uint64_t system = 0;
    uint64_t idle = 0;
    uint64_t waiting = 0;     // for disks
    uint64_t interrupts = 0;  // "irq" and "softirq"
    uint64_t stolen = 0;
};

struct named_counter {
    std::string name;    // "14", "NET_RX"
    std::string device;  // of an interrupt; may be empty
    uint64_t count = 0;  // of all processors
};

struct slab_cache {
    std::string name;
    uint64_t objects = 0;  // in use or kept for use
    uint64_t object_bytes = 0;
};

struct disk_counters {
    std::string name;
    uint64_t reads = 0;
    uint64_t read_sectors = 0;  // of 512 bytes
    uint64_t writes = 0;
    uint64_t written_sectors = 0;
    uint64_t busy_ms = 0;
};

struct interface_counters {
    std::string name;
    uint64_t rx_bytes = 0, rx_packets = 0, rx_errors = 0, rx_dropped = 0;
    uint64_t tx_bytes = 0, tx_packets = 0, tx_errors = 0, tx_dropped = 0;
};

struct mount {
    std::string device, folder, type, options;
};

struct look {
    bool is_present = false;
    std::string stamp;  // "20261122-161132"
    double uptime_seconds = 0;
    double idle_seconds = 0;            // of all processors
    std::string load;                   // the line of /proc/loadavg
    std::vector<cpu_ticks> processors;  // the first is the sum; empty if unknown
    uint64_t context_switches = 0, forks = 0, boot_time = 0, running = 0, blocked = 0;
    std::map<std::string, uint64_t> memory_kb;  // /proc/meminfo
    std::map<std::string, uint64_t> vmstat;
    std::vector<named_counter> interrupts, softirqs;
    std::vector<slab_cache> slabs;
    std::vector<disk_counters> disks;
    std::vector<interface_counters> interfaces;
    std::map<std::string, uint64_t>
        protocols;  // "Tcp.RetransSegs", "Ip6.InReceives"; of snmp, netstat, snmp6
    std::map<std::string, std::string> settings;  // "sys/kernel/panic": the text of a short file of /proc/sys
    std::vector<mount> mounts;
    std::vector<std::string> modules;              // the lines of /proc/modules
    std::string version, command_line, processor;  // /proc/version, /proc/cmdline, the processor's model
    std::string machine;                           // the kind of board, from /proc/cpuinfo; may be empty
};

// Adds a file of /proc: `name` is relative to it ("stat", "net/dev", "sys/vm/swappiness"). Returns false if
// nothing is known about such a file. A file may end anywhere: a line without its newline is not used, except
// where the file is one text. A file that is added again replaces what it gave before.
bool look_add(look* l, std::string_view name, std::string_view text);

struct change {
    std::string group;  // "cpu", "interrupts", "softirqs", "vmstat", "memory", "slab", "disks", "interfaces",
                        // "protocols", "settings"
    std::string name;   // "eth0 rx_bytes"
    std::string unit;   // "percent", "per_second", "bytes_per_second", "kb", "bytes"; of settings ""
    double first = 0, second = 0;
    double value = 0;  // what a reader wants to see, in `unit`: a rate, a share, or a difference
    std::string first_text, second_text;  // of settings
};

// What differs, the largest change of each group first, with all processors before each single one. A counter
// of 32 bits that wrapped is taken for that if it was near its end. Other counters that went backwards are
// left out: they were reset. So are all rates if the uptimes do not say how much time passed, settings that
// change by themselves, and what only one look has.
std::vector<change> look_changes(const look& first, const look& second);

// How busy the processors were between the looks, in percent of all of them; -1 if unknown.
double look_busy_percent(const look& first, const look& second);

}  // namespace archiveview
