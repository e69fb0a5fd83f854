// The kernel's network tables as text, a line for each entry. Words are separated by blanks; after what the
// line is about come pairs of a name and a value. A device that has no name any more is "#INDEX".
// Of a route with several hops, only the destination is shown.
//
//   interfaces  eth0 index 2 state up promiscuous mtu 1500 mac 02:00:00:00:00:01 rx_packets 9 tx_packets 8
//                 rx_bytes 900 tx_bytes 800 rx_errors 0 tx_errors 0 rx_dropped 0 tx_dropped 0
//   addresses   eth0 address 192.168.1.5/24
//   routes      0.0.0.0/0 via 192.168.1.1 device eth0 metric 100
//               unreachable 10.1.0.0/16 metric 1024 table 5
//   neighbours  192.168.1.1 device eth0 mac 02:00:00:00:00:02 state reachable
#pragma once

#include <linux/netlink.h>
#include <stdint.h>

#include "common/heap_text.h"

enum class network_table : uint8_t { interfaces, addresses, routes, neighbours };

// Appends the entries of a table of this thread's network namespace. Of addresses, routes and neighbours, it
// has those of IPv4 and IPv6, without the routing table "local", which repeats the addresses. Returns 0 or an
// errno, as netlink_list does.
int network_text_add(heap_text* text, network_table table);

// Appends one entry, as netlink_list gives it. An entry that is too short is skipped.
void network_text_add_entry(heap_text* text, network_table table, const nlmsghdr* entry);
