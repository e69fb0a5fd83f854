// Who a finding is about.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>

#include "tools/archiveview/findings/row.h"

namespace archiveview {

// "encoderd (412)", or "process 412" if it has no name.
std::string who(const archive_facts& facts, int pid);

// "process/412"
std::string process_place(int pid);

// True for the programs that make the archive: what they do while they make it is never a finding.
bool is_own(const archive_facts& facts, int pid);

// The text after the last colon of "192.0.2.1:80".
std::string_view port_of(std::string_view endpoint);
// What is before it, without brackets.
std::string_view address_of(std::string_view endpoint);

bool is_loopback(std::string_view address);

// The addresses of this device, as far as the archive tells.
class device_addresses {
public:
    explicit device_addresses(const archive_facts& facts);
    bool has(std::string_view address) const;

private:
    std::unordered_set<std::string> addresses_;
};

// The connections of the programs that make the archive, most of all that of its download.
class own_connections {
public:
    explicit own_connections(const archive_facts& facts);
    bool has(const conversation& one) const;
    bool has(const socket_facts& one) const;

private:
    bool is_own_endpoint(const std::string& endpoint) const;

    const archive_facts& facts_;
    std::unordered_set<std::string> endpoints_;  // "tcp" sockets that they have
    std::unordered_set<std::string> ports_;      // that they listen on
};

// Calls `visit(pid, process)` for each process that a finding may be about: it ran on the device, and is none
// of the kernel's or of those that make the archive.
template <typename Visitor>
void for_each_suspect(const archive_facts& facts, Visitor visit) {
    for (const auto& [pid, process] : facts.processes.by_pid) {
        if (!process.is_kernel_thread && !is_own(facts, pid)) {
            visit(pid, process);
        }
    }
}

// How much a counter has grown between the looks; 0 if it went backwards or one look is missing.
uint64_t growth_of(const archive_facts& facts, const std::map<std::string, uint64_t> look::*table,
                   const std::string& name);

// Seconds between the looks, or 0 if one is missing.
double seconds_between(const archive_facts& facts);

const look& last_look(const archive_facts& facts);
bool has_both_looks(const archive_facts& facts);

// The number of a name, or 0.
uint64_t number_in(const std::map<std::string, uint64_t>& table, const std::string& name);

// Seconds that the trace covers, at least one.
double trace_seconds(const archive_facts& facts);

}  // namespace archiveview
