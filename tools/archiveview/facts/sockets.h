// The tables of sockets, joined to their owners.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/processes.h"

namespace archiveview {

struct socket_facts {
    std::string protocol;       // "tcp", "tcp6", "udp", "udp6", "raw", "raw6", "unix", "packet", "netlink"
    std::string local, remote;  // "192.0.2.1:80", "[2001:db8::1]:80"; of unix the path
    std::string state;          // "ESTABLISHED", "LISTEN", "CLOSE_WAIT"; empty if the protocol has none
    uint64_t inode = 0;
    int pid = 0;  // 0: no process has it, or none is known
    uint64_t send_queue = 0,
             receive_queue = 0;  // of a listening TCP socket: its limit, and connections that wait
    uint64_t drops = 0;
    bool in_first_look = false, in_second_look = false;
};

struct socket_list {
    std::vector<socket_facts> sockets;
};

// Adds a table; `protocol` is the name of the file in /proc/net, `look` is 0 or 1. A socket that both looks
// have keeps what the second says. The kernel prints addresses in its own byte order, that of the device:
// `is_big_endian` is false for all devices known so far.
void sockets_add_table(socket_list* list, std::string_view protocol, int look, std::string_view text,
                       bool is_big_endian = false);

// Fills in the owners by inode.
void sockets_join(socket_list* list, const process_list& processes);

// The process that has the local address "192.0.2.1:80" of a protocol ("tcp", "udp"; also of sockets bound to
// any address), or 0.
int sockets_owner(const socket_list& list, std::string_view protocol, std::string_view local,
                  std::string_view remote);

}  // namespace archiveview
