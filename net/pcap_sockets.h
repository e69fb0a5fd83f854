// The interfaces of a capture and their packet sockets.
#pragma once

#include "common/unique_fd.h"
#include "net/frame_ring.h"

struct sock_fprog;

constexpr int pcap_interface_limit = 6;

struct pcap_interfaces {
    const char* names[pcap_interface_limit];  // within the caller's text
    int count = 0;
};

// Cuts `text` up at its commas, in place. Names that `index_of` does not know (it gives 0) are left out, and
// so is what comes after six names; no name at all gives "any". A name that is listed already is replaced by
// the next one, whose existence nobody checks and which is compared with the rest of the list alone.
pcap_interfaces pcap_list_interfaces(char* text, unsigned (*index_of)(const char* name));

struct pcap_socket {
    unique_fd fd;
    const char* name = nullptr;
    frame_ring ring;  // where its frames are, unless they have to be read
};

struct pcap_sockets {
    pcap_socket all[pcap_interface_limit];
    int count = 0;
};

// Opens a packet socket for each name that the system knows, or for all interfaces at once where it does not.
// `filter` is null or attached to each; `promisc` switches promiscuous mode on, 0 off. An interface that
// can't be opened is reported on standard error, and the last one of the list takes its place. More than
// `ring_size` bytes of shared memory would be of no use.
pcap_sockets pcap_open_sockets(const pcap_interfaces& interfaces, const sock_fprog* filter, int promisc,
                               uint64_t ring_size = UINT64_MAX);

// Switches promiscuous mode off, whatever it was before the capture and whatever the interfaces are called by
// now, and closes the sockets. Leaves errno alone: it may say why the capture ended.
void pcap_close_sockets(pcap_sockets* sockets);

// Switches promiscuous mode of the interface `name`; nothing when its state can't be read. Reports nothing.
void pcap_set_promisc(int sock, const char* name, int on);
