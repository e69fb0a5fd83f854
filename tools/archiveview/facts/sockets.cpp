#include "tools/archiveview/facts/sockets.h"

#include <algorithm>

#include "tools/archiveview/facts/socket_address.h"

namespace archiveview {

namespace {

struct socket_owners {
    int now = 0;     // has it in the second look, or later
    int before = 0;  // had it in the first look
};

// By inode.
using owner_map = std::map<uint64_t, socket_owners>;

void set_owner(owner_map* owners, uint64_t inode, int socket_owners::*which, int pid) {
    const auto at = inode != 0 ? owners->find(inode) : owners->end();
    if (at != owners->end() && at->second.*which == 0) {
        at->second.*which = pid;
    }
}

void add_process(owner_map* owners, const process_facts& process) {
    const auto which = process.has_gone ? &socket_owners::before : &socket_owners::now;
    for (const descriptor& d : process.descriptors) {
        set_owner(owners, descriptor_socket(d), which, process.pid);
    }
    for (const uint64_t inode : process.first_sockets) {
        set_owner(owners, inode, &socket_owners::before, process.pid);
    }
}

bool is_ipv6(std::string_view address) {
    return address.starts_with('[');
}

// "tcp" of "tcp6".
std::string_view family_of(std::string_view protocol) {
    return protocol.substr(0, protocol.find('6'));
}

std::string key_of(std::string_view protocol, std::string_view local, std::string_view remote) {
    return std::string(family_of(protocol)).append(" ").append(local).append(" ").append(remote);
}

bool is_connected(const socket_facts& socket) {
    return !socket.remote.empty() && !socket.remote.ends_with(":0");
}

void add_owner(const socket_list& list, const socket_facts& socket) {
    const std::string remote = is_connected(socket) ? plain_address(socket.remote) : "";
    list.owners.try_emplace(key_of(socket.protocol, plain_address(socket.local), remote), socket.pid);
}

// Sockets of the second look come first: an address may have been used by two.
void make_owners(const socket_list& list) {
    list.owners.clear();
    list.owners_made_of = list.sockets.size();
    for (const bool is_second : {true, false}) {
        for (const socket_facts& socket : list.sockets) {
            if (socket.pid != 0 && socket.in_second_look == is_second) {
                add_owner(list, socket);
            }
        }
    }
}

}  // namespace

void sockets_join(socket_list* list, const process_list& processes) {
    owner_map owners;
    for (const socket_facts& socket : list->sockets) {
        owners.try_emplace(socket.inode);
    }
    for (const auto& [pid, process] : processes.by_pid) {
        add_process(&owners, process);
    }
    for (socket_facts& socket : list->sockets) {
        const auto [now, before] = owners[socket.inode];
        const bool prefers_now = now != 0 && (socket.in_second_look || before == 0);
        socket.pid = prefers_now ? now : before;
    }
    list->by_identity.clear();
    list->owners_made_of = 0;
}

int sockets_owner(const socket_list& list, std::string_view protocol, std::string_view local,
                  std::string_view remote) {
    if (list.owners_made_of != list.sockets.size()) {
        make_owners(list);
    }
    const std::string address = plain_address(local);
    const std::string port = address.substr(std::min(address.rfind(':'), address.size()));
    const std::string any_ipv4 = is_ipv6(address) ? "" : "0.0.0.0" + port;
    const std::string keys[] = {
        key_of(protocol, address, plain_address(remote)),
        key_of(protocol, address, ""),
        key_of(protocol, any_ipv4, ""),
        key_of(protocol, "[::]" + port, ""),
    };
    for (const std::string& key : keys) {
        if (const auto at = list.owners.find(key); at != list.owners.end()) {
            return at->second;
        }
    }
    return 0;
}

bool sockets_lacks_owner(const socket_facts& socket) {
    return socket.pid == 0 && socket.inode != 0 && socket.protocol != "netlink";
}

}  // namespace archiveview
