#include "tools/archiveview/findings/subjects.h"

#include <algorithm>
#include <array>

#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

// As the kernel stores names: 15 bytes at most.
constexpr std::array own_names = {"debugar.cgi", "webfront", "dcore", "coredump-handle", "tstrace"};

bool has_own_name(const process_facts* process) {
    return process && std::find(own_names.begin(), own_names.end(), process->name) != own_names.end();
}

bool is_stream_protocol(std::string_view protocol) {
    return protocol == "tcp" || protocol == "tcp6";
}

}  // namespace

std::string who(const archive_facts& facts, int pid) {
    const process_facts* process = facts.processes.find(pid);
    if (process && !process->name.empty()) {
        return said(process->name, " (", pid, ")");
    }
    const auto traced = facts.trace.by_pid.find(pid);
    if (traced != facts.trace.by_pid.end() && !traced->second.name.empty()) {
        return said(traced->second.name, " (", pid, ")");
    }
    return said("process ", pid);
}

std::string process_place(int pid) {
    return said("process/", pid);
}

bool is_own(const archive_facts& facts, int pid) {
    const process_facts* process = facts.processes.find(pid);
    return process && (has_own_name(process) || has_own_name(facts.processes.find(process->parent)));
}

std::string_view port_of(std::string_view endpoint) {
    const size_t colon = endpoint.rfind(':');
    return colon == std::string_view::npos ? std::string_view() : endpoint.substr(colon + 1);
}

std::string_view address_of(std::string_view endpoint) {
    if (endpoint.starts_with('[')) {
        return endpoint.substr(1, endpoint.find(']') - 1);
    }
    const size_t colon = endpoint.find(':');
    // More than one colon: an address of IPv6 without a port.
    return colon == endpoint.rfind(':') ? endpoint.substr(0, colon) : endpoint;
}

bool is_loopback(std::string_view address) {
    return address.starts_with("127.") || address == "::1" || address.starts_with("::ffff:127.");
}

device_addresses::device_addresses(const archive_facts& facts) {
    for (const std::string& line : facts.device.addresses) {  // "eth0 192.0.2.2/24"
        const size_t begin = line.rfind(' ') + 1;
        addresses_.insert(line.substr(begin, line.find('/', begin) - begin));
    }
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.protocol != "unix" && !socket.local.empty()) {
            addresses_.emplace(address_of(socket.local));
        }
    }
}

bool device_addresses::has(std::string_view address) const {
    return is_loopback(address) || addresses_.contains(std::string(address));
}

own_connections::own_connections(const archive_facts& facts) : facts_(facts) {
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.pid == 0 || !is_stream_protocol(socket.protocol) || !is_own(facts, socket.pid)) {
            continue;
        }
        endpoints_.insert(socket.local);
        if (socket.state == "LISTEN") {
            ports_.emplace(port_of(socket.local));
        }
    }
}

bool own_connections::is_own_endpoint(const std::string& endpoint) const {
    return endpoints_.contains(endpoint) || ports_.contains(std::string(port_of(endpoint)));
}

bool own_connections::has(const conversation& one) const {
    return is_own(facts_, one.pid) || is_own(facts_, one.peer_pid) || is_own_endpoint(one.a) ||
           is_own_endpoint(one.b);
}

bool own_connections::has(const socket_facts& one) const {
    return is_own_endpoint(one.local) || is_own_endpoint(one.remote);
}

bool has_both_looks(const archive_facts& facts) {
    return facts.looks[0].is_present && facts.looks[1].is_present;
}

const look& last_look(const archive_facts& facts) {
    return facts.looks[facts.looks[1].is_present ? 1 : 0];
}

uint64_t number_in(const std::map<std::string, uint64_t>& table, const std::string& name) {
    const auto at = table.find(name);
    return at == table.end() ? 0 : at->second;
}

uint64_t growth_of(const archive_facts& facts, const std::map<std::string, uint64_t> look::*table,
                   const std::string& name) {
    if (!has_both_looks(facts)) {
        return 0;
    }
    const auto& before = facts.looks[0].*table;
    const auto& after = facts.looks[1].*table;
    // A counter that only one look has, has not grown as far as anyone knows.
    return before.contains(name) && after.contains(name) && after.at(name) > before.at(name)
               ? after.at(name) - before.at(name)
               : 0;
}

double seconds_between(const archive_facts& facts) {
    const double seconds = facts.looks[1].uptime_seconds - facts.looks[0].uptime_seconds;
    return has_both_looks(facts) && seconds > 0 ? seconds : 0;
}

double trace_seconds(const archive_facts& facts) {
    constexpr double usual = 5;
    return facts.trace.seconds > 0 ? std::max(facts.trace.seconds, 1.0) : usual;
}

}  // namespace archiveview
