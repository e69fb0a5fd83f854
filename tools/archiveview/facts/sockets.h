// The tables of sockets, joined to their owners.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/processes.h"

namespace archiveview {

struct socket_facts {
    std::string protocol;  // "tcp", "tcp6", "udp", "udp6", "raw", "raw6", "unix", "packet", "netlink"
    // "192.0.2.1:80", "[2001:db8::1]:80", "[::ffff:192.0.2.1]:80"; no connection: "0.0.0.0:0", "[::]:0". Of
    // raw, the port is the protocol's number. Of unix, `local` is the path ("@..." of an abstract name, empty
    // if it has none); of packet "0x0003 on interface 2"; of netlink "route:4711". They have no `remote`.
    std::string local, remote;
    // "ESTABLISHED", "LISTEN", "CLOSE_WAIT". Of udp and raw empty if not connected. Of unix "LISTEN",
    // "CONNECTED", "CONNECTING", "DISCONNECTING" or empty. Of packet and netlink empty.
    std::string state;
    uint64_t inode = 0;
    int pid = 0;                                 // 0: no process has it, or none is known
    uint64_t send_queue = 0, receive_queue = 0;  // bytes; of a listening TCP socket the second is the number
                                                 // of connections that wait (tables do not tell its limit)
    uint64_t drops = 0;
    bool in_first_look = false, in_second_look = false;
};

struct socket_list {
    std::vector<socket_facts> sockets;
    std::map<std::string, size_t> by_identity;  // places in `sockets`, until sockets_join
    mutable std::map<std::string, int> owners;  // of sockets_owner, which fills it when it is called first
    mutable size_t owners_made_of = 0;          // as many sockets
};

// Adds a table; `protocol` is the name of the file in /proc/net, `look` is 0 or 1. A socket that both looks
// have keeps what the second says. The kernel prints addresses in its own byte order, that of the device:
// `is_big_endian` is false for all devices known so far.
void sockets_add_table(socket_list* list, std::string_view protocol, int look, std::string_view text,
                       bool is_big_endian = false);

// Fills in the owners by inode: of several processes that share a socket the one with the lowest pid. A
// socket that only the first look has goes to a process that had it then.
void sockets_join(socket_list* list, const process_list& processes);

// True if a process should have the socket, but none is known. The kernel keeps TCP connections that wait for
// late segments, which have no inode, and netlink sockets of its own.
bool sockets_lacks_owner(const socket_facts& socket);

// The process that has the local address "192.0.2.1:80" of a protocol ("tcp", "udp"), or 0: the owner of the
// connection with `remote`; else of a socket without a connection that is bound to the address; else of one
// that is bound to any address. Sockets for both kinds of IP are found by IPv4 addresses, too. To be called
// when the list is complete.
int sockets_owner(const socket_list& list, std::string_view protocol, std::string_view local,
                  std::string_view remote);

}  // namespace archiveview
