// Joins the capture to the processes that own its sockets.
#include <string_view>

#include "tools/archiveview/facts/capture.h"

namespace archiveview {

namespace {

std::string name_of(const process_list& processes, int pid) {
    const process_facts* process = processes.find(pid);
    return process ? process->name : "";
}

void join_conversation(conversation* joined, const socket_list& sockets, const process_list& processes) {
    if (joined->protocol != "tcp" && joined->protocol != "udp") {
        return;
    }
    const int of_a = sockets_owner(sockets, joined->protocol, joined->a, joined->b);
    const int of_b = sockets_owner(sockets, joined->protocol, joined->b, joined->a);
    joined->pid = of_a != 0 ? of_a : of_b;
    joined->process = name_of(processes, joined->pid);
    joined->peer_pid = of_a != 0 ? of_b : 0;
    joined->peer_process = name_of(processes, joined->peer_pid);
}

// Processes by the addresses to which they have, or try, a connection.
std::map<std::string, int, std::less<>> owners_by_peer(const socket_list& sockets) {
    std::map<std::string, int, std::less<>> owners;
    for (const socket_facts& socket : sockets.sockets) {
        const size_t port = socket.remote.rfind(':');
        if (socket.pid == 0 || port == std::string::npos) {
            continue;
        }
        std::string_view address = std::string_view(socket.remote).substr(0, port);
        if (address.starts_with('[') && address.ends_with(']')) {
            address = address.substr(1, address.size() - 2);
        }
        owners.emplace(address, socket.pid);
    }
    return owners;
}

}  // namespace

void capture_join(capture_facts* facts, const socket_list& sockets, const process_list& processes) {
    for (conversation& joined : facts->conversations) {
        join_conversation(&joined, sockets, processes);
    }
    for (asked_name& asked : facts->dns) {
        const bool is_6 = asked.server.find(':') != std::string::npos;
        const std::string server = (is_6 ? "[" + asked.server + "]" : asked.server) + ":53";
        asked.pid = sockets_owner(sockets, "udp", asked.asker, server);
        asked.process = name_of(processes, asked.pid);
    }
    const auto owners = owners_by_peer(sockets);
    for (asked_name& asked : facts->arp) {
        const auto found = owners.find(asked.name);
        asked.pid = found == owners.end() ? 0 : found->second;
        asked.process = name_of(processes, asked.pid);
    }
}

}  // namespace archiveview
