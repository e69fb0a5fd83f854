// Findings on TCP connections in the capture.
#include <algorithm>
#include <map>
#include <set>

#include "tools/archiveview/findings/subjects.h"
#include "tools/archiveview/findings/thresholds.h"
#include "tools/archiveview/findings/wording.h"

namespace archiveview {

namespace {

std::string conversation_place(const archive_facts& facts, const conversation& one) {
    return said("conversation/", &one - facts.capture.conversations.data());
}

std::string ends_of(const conversation& one) {
    return said(one.a, " and ", one.b);
}

bool is_answered(const conversation& one) {
    return one.accepts > 0 || one.refusals > 0;
}

// Attempts of one client to reach one address.
struct attempts {
    std::string from;  // an address without the port, which differs from attempt to attempt
    std::string to;
    uint64_t count = 0;
    int pid = 0;
    std::string place;
};

using attempts_by_target = std::map<std::string, attempts>;

attempts* attempts_at(attempts_by_target* all, std::string_view from, const std::string& to) {
    attempts* one = &(*all)[said(from, ' ', to)];
    one->from = from;
    one->to = to;
    return one;
}

// The process that calls connect most, in the trace; `name`: those of its calls that end with this error
// count.
int connecting_process(const archive_facts& facts, const char* name) {
    int pid = 0;
    uint64_t most = refused_connects - 1;
    for (const auto& [candidate, traced] : facts.trace.by_pid) {
        const auto connects = traced.by_call.find("connect");
        if (connects == traced.by_call.end() || is_own(facts, candidate)) {
            continue;
        }
        const uint64_t failed = std::min(connects->second.calls, number_in(traced.by_errno, name));
        if (failed > most) {
            most = failed;
            pid = candidate;
        }
    }
    return pid;
}

// Connections that a process of this device has begun and that nobody has answered yet.
void add_waiting_sockets(const archive_facts& facts, attempts_by_target* all) {
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.state != "SYN_SENT") {
            continue;
        }
        attempts* one = attempts_at(all, address_of(socket.local), socket.remote);
        one->pid = socket.pid != 0 ? socket.pid : one->pid;
        if (one->place.empty()) {
            one->place = said("socket/", socket.inode);
        }
        // It has waited through the trace and the capture.
        one->count += socket.in_first_look && socket.in_second_look ? unanswered_connects : 1;
    }
}

attempts_by_target unanswered_attempts(const archive_facts& facts) {
    const own_connections own(facts);
    attempts_by_target all;
    for (const conversation& one : facts.capture.conversations) {
        if (one.connects == 0 || is_answered(one) || own.has(one)) {
            continue;
        }
        attempts* to = attempts_at(&all, address_of(one.a), one.b);
        to->count += one.connects;
        to->pid = one.pid != 0 ? one.pid : to->pid;
        to->place = conversation_place(facts, one);
    }
    add_waiting_sockets(facts, &all);
    return all;
}

// Servers on this device that do not accept. Attempts to reach them are their fault.
std::set<std::string> waiting_servers(const archive_facts& facts) {
    std::set<std::string> ports;
    for (const socket_facts& socket : facts.sockets.sockets) {
        if (socket.state == "LISTEN" && socket.receive_queue > 0) {
            ports.emplace(port_of(socket.local));
        }
    }
    return ports;
}

std::string name_or(const archive_facts& facts, int pid, const std::string& address) {
    return pid != 0 ? who(facts, pid) : address;
}

bool loses_packets(const conversation& one) {
    const bool is_attempt = one.connects > 0 && !is_answered(one);
    return !is_attempt && one.retransmissions >= retransmissions_note;
}

std::optional<severity> loss_level(const conversation& one) {
    if (!loses_packets(one)) {
        return std::nullopt;
    }
    const bool is_bad =
        one.retransmissions >= retransmissions_warning && one.zero_windows == 0 &&
        static_cast<double>(one.retransmissions) >= retransmissions_share * static_cast<double>(one.packets);
    return is_bad && one.pid != 0 ? severity::warning : severity::note;
}

}  // namespace

symptoms find_retransmissions(const archive_facts& facts) {
    const own_connections own(facts);
    symptoms all;
    for (const conversation& one : facts.capture.conversations) {
        const std::optional<severity> level = loss_level(one);
        if (!level || own.has(one)) {
            continue;
        }
        symptom found{.pid = one.pid, .level = level};
        found.text = said("Packets between ", ends_of(one), " are lost: ", one.retransmissions, " of ",
                          one.packets, " were sent again.");
        found.proof.push_back(
            {said(counted(one.retransmissions, "retransmission"), " in ", counted(one.packets, "packet"),
                  one.pid != 0 ? " of " + who(facts, one.pid) : std::string()),
             conversation_place(facts, one)});
        found.weight = static_cast<double>(one.retransmissions);
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_resets(const archive_facts& facts) {
    const own_connections own(facts);
    attempts_by_target by_target;
    for (const conversation& one : facts.capture.conversations) {
        if (one.resets == 0 || own.has(one)) {
            continue;
        }
        attempts* to = attempts_at(&by_target, address_of(one.a), one.b);
        to->count += one.resets;
        to->pid = one.pid != 0 ? one.pid : to->pid;
        to->place = conversation_place(facts, one);
    }
    symptoms all;
    for (const auto& [key, one] : by_target) {
        if (one.count < resets_note) {
            continue;
        }
        symptom found{.pid = one.pid};
        found.level = one.count >= resets_warning && one.pid != 0 ? severity::warning : severity::note;
        found.text = said(counted(one.count, "connection"), " between ", one.from, " and ", one.to,
                          " ended with a reset.");
        found.proof.push_back({said(counted(one.count, "reset")), one.place});
        found.weight = static_cast<double>(one.count);
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_connect_unanswered(const archive_facts& facts) {
    const device_addresses device(facts);
    const std::set<std::string> busy_ports = waiting_servers(facts);
    symptoms all;
    for (auto [key, one] : unanswered_attempts(facts)) {
        const bool is_local_server =
            device.has(address_of(one.to)) && busy_ports.contains(std::string(port_of(one.to)));
        if (one.count < unanswered_connects || is_local_server || (one.pid != 0 && is_own(facts, one.pid))) {
            continue;
        }
        one.pid = one.pid != 0 ? one.pid : connecting_process(facts, "ETIMEDOUT");
        symptom found{.pid = one.pid};
        found.level = one.pid != 0 ? severity::warning : severity::note;
        found.text = said(one.to, " does not answer the connection attempts of ",
                          name_or(facts, one.pid, one.from), ".");
        found.proof.push_back({said(counted(one.count, "attempt"), " without an answer"), one.place});
        found.weight = static_cast<double>(one.count);
        all.push_back(std::move(found));
    }
    return all;
}

symptoms find_connect_refused(const archive_facts& facts) {
    const own_connections own(facts);
    const device_addresses device(facts);
    attempts_by_target by_target;
    for (const conversation& one : facts.capture.conversations) {
        if (one.refusals == 0 || own.has(one)) {
            continue;
        }
        attempts* to = attempts_at(&by_target, address_of(one.a), one.b);
        to->count += one.refusals;
        to->pid = one.pid != 0 ? one.pid : to->pid;
        to->place = conversation_place(facts, one);
    }
    const int caller = connecting_process(facts, "ECONNREFUSED");
    if (by_target.empty() && caller != 0) {  // a local socket, or the capture was full by then
        attempts* one = attempts_at(&by_target, "", "a service");
        one->count = number_in(facts.trace.by_pid.at(caller).by_errno, "ECONNREFUSED");
        one->pid = caller;
        one->place = said("trace/", caller);
    }
    symptoms all;
    for (auto& [key, one] : by_target) {
        if (one.count < refused_connects) {
            continue;
        }
        one.pid = one.pid != 0 ? one.pid : caller;
        // From elsewhere, it is others that ask for what this device does not have.
        const bool is_from_here = one.pid != 0 || device.has(one.from);
        symptom found{.pid = one.pid, .level = is_from_here ? severity::warning : severity::note};
        found.text = said(name_or(facts, one.pid, one.from), " connects again and again to ", one.to,
                          ", which refuses.");
        found.proof.push_back({said(counted(one.count, "refused connection")), one.place});
        found.weight = static_cast<double>(one.count);
        all.push_back(std::move(found));
    }
    return all;
}

}  // namespace archiveview
