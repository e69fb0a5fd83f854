// The interfaces of a capture and their packet sockets.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"
#include "net/frame_ring.h"

struct sock_fprog;

constexpr int pcap_interface_limit = 6;

struct pcap_interfaces {
    const char* names[pcap_interface_limit];  // within the caller's text
    int count = 0;
};

// Splits `text` at its commas, in place. Skips names for which `index_of` returns 0, and everything after six
// names. Without any valid name, the list is "any". A name that is listed already is replaced by the next
// one, which is not checked with `index_of` and is compared only with the rest of the list.
pcap_interfaces pcap_list_interfaces(char* text, unsigned (*index_of)(const char* name));

struct pcap_socket {
    unique_fd fd;
    const char* name = nullptr;  // borrowed from the list of interfaces
    frame_ring ring;             // empty: frames are read from fd
};

// Closes its sockets at the end of its life, as pcap_close_sockets() does.
struct pcap_sockets {
    pcap_socket all[pcap_interface_limit];
    int count = 0;

    pcap_sockets() = default;
    pcap_sockets(const pcap_sockets&) = delete;
    pcap_sockets& operator=(const pcap_sockets&) = delete;
    ~pcap_sockets();
};

// Opens a packet socket for each interface; an unknown name ("any") opens one for all interfaces. Attaches
// `filter` to each unless it is null. Switches promiscuous mode on, or off if `promisc` is 0. If an interface
// cannot be opened, reports that on standard error and tries the last one of the list in its place. A ring
// larger than `ring_size` bytes would be useless to the caller.
void pcap_open_sockets(pcap_sockets* sockets, const pcap_interfaces& interfaces, const sock_fprog* filter,
                       int promisc, uint64_t ring_size = UINT64_MAX);

// Switches promiscuous mode off, even if it was on before the capture or the interface has been renamed, and
// closes the sockets. Leaves errno alone: it may tell why the capture ended.
void pcap_close_sockets(pcap_sockets* sockets);

// Switches promiscuous mode of the interface `name`. Does nothing if its flags cannot be read; reports no
// error.
void pcap_set_promisc(int sock, const char* name, int on);
