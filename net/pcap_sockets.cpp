#include "net/pcap_sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <atomic>

namespace {

constexpr const char* every_interface = "any";

// Not in network order, and no protocol at all: nothing arrives before the socket is bound.
constexpr int protocol_before_bind = 3;

// All sockets of a capture together may queue this much, on a small machine the given part of its memory.
constexpr uint64_t queue_bytes = 16u << 20;
constexpr uint64_t memory_per_queue = 32;

uint64_t memory_size() {
    struct sysinfo info = {};
    return sysinfo(&info) == 0 ? uint64_t{info.totalram} * info.mem_unit : 0;
}

// What one of the sockets may queue: a burst must not be lost while a browser is slow.
size_t queue_share(int sharing) {
    return static_cast<size_t>(std::min(queue_bytes, memory_size() / memory_per_queue)) /
           static_cast<size_t>(sharing);
}

// A ring is resident from the start, all of it, and can't be taken back. So only machines with much memory
// have one, and those of all captures that run at the same time take no more than two of the largest; else
// the kernel queues, which takes memory for what is queued.
std::atomic<size_t> ring_bytes{0};

// Where the data cache is looked up by virtual addresses, the kernel and a program can see different contents
// of the same memory.
#if defined(__mips__)
constexpr bool memory_can_be_shared = false;
#else
constexpr bool memory_can_be_shared = true;
#endif

// What all sockets of a capture have in common.
struct socket_plan {
    const sock_fprog* filter;
    int sharing;         // how many sockets the capture has
    uint64_t ring_size;  // more would be of no use
};

// Several sockets have no ring: one's frames would be handed over later than those of another that came after
// them, and the records are to be in the order of their timestamps.
bool open_ring(frame_ring* ring, int sock, const socket_plan& plan) {
    const size_t queue = static_cast<size_t>(std::min<uint64_t>(queue_bytes, plan.ring_size));
    const bool has_memory = memory_size() / memory_per_queue >= queue_bytes;
    if (!memory_can_be_shared || plan.sharing > 1 || !has_memory) {
        return false;
    }
    if (ring_bytes.fetch_add(queue) + queue > 2 * queue_bytes || !frame_ring_open(ring, sock, queue)) {
        ring_bytes -= queue;
        return false;
    }
    ring_bytes += ring->size;
    ring_bytes -= queue;
    return true;
}

void close_ring(frame_ring* ring) {
    ring_bytes -= ring->size;
    frame_ring_close(ring);
}

// Without the privilege the system's own limit holds.
void raise_queue(int sock, size_t size) {
    int bytes = static_cast<int>(size / 2);  // the kernel doubles it
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0) {
        (void)setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

bool bind_to(int sock, const char* name) {
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(name));
    return bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The name that the interface of a bound socket has by now: it may have been renamed, and another one may
// have taken its old name.
bool ask_name(int sock, ifreq* answer) {
    sockaddr_ll address = {};
    socklen_t size = sizeof address;
    if (getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return false;
    }
    *answer = {};
    answer->ifr_ifindex = address.sll_ifindex;
    return ioctl(sock, SIOCGIFNAME, answer) == 0;
}

bool attach(int sock, const sock_fprog& filter) {
    return setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

// What a filter accepts of a frame is copied into a ring, 64 KiB where a card puts frames together. Attaches
// `filter`, or one that takes every frame, in such a way that no more is copied than is recorded.
bool attach_to_ring(int sock, const sock_fprog* filter) {
    sock_filter everything = BPF_STMT(BPF_RET | BPF_K, pcap_frame_limit);
    const sock_fprog all = {1, &everything};
    const sock_fprog& wanted = filter ? *filter : all;
    malloc_array<sock_filter> lines = calloc_array<sock_filter>(wanted.len);
    if (!lines) {
        return attach(sock, wanted);
    }
    for (unsigned i = 0; i < wanted.len; i++) {
        sock_filter& line = lines[i];
        line = wanted.filter[i];
        line.k = line.code == (BPF_RET | BPF_K) ? std::min<uint32_t>(line.k, pcap_frame_limit) : line.k;
    }
    return attach(sock, {wanted.len, lines.get()});
}

unique_fd open_socket(const char* name, const socket_plan& plan, frame_ring* ring) {
    unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, protocol_before_bind));
    if (!sock) {
        perror("socket: ");
        return sock;
    }
    // Attached before the first frame can arrive; what is wrong with it is said in its turn.
    bool is_attached = true;
    if (open_ring(ring, sock.get(), plan)) {
        is_attached = attach_to_ring(sock.get(), plan.filter) || !plan.filter;
    } else {
        raise_queue(sock.get(), queue_share(plan.sharing));
        is_attached = !plan.filter || attach(sock.get(), *plan.filter);
    }
    int filter_error = is_attached ? 0 : errno;
    if (!bind_to(sock.get(), name)) {
        perror("bind: ");
        return unique_fd();
    }
    if (filter_error != 0) {
        errno = filter_error;
        perror("setsockopt attach filter: ");
        return unique_fd();
    }
    return sock;
}

bool is_listed_after(const pcap_interfaces& list, int* position, const char* name) {
    while (*position < list.count) {
        if (strcmp(list.names[(*position)++], name) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

pcap_interfaces pcap_list_interfaces(char* text, unsigned (*index_of)(const char* name)) {
    pcap_interfaces list;
    char* rest = nullptr;
    for (char* name = strtok_r(text, ",", &rest); name; name = strtok_r(nullptr, ",", &rest)) {
        if (list.count == pcap_interface_limit || index_of(name) == 0) {
            continue;
        }
        int position = 0;
        while (name && is_listed_after(list, &position, name)) {
            name = strtok_r(nullptr, ",", &rest);
        }
        if (!name) {
            break;
        }
        list.names[list.count++] = name;
    }
    if (list.count == 0) {
        list.names[list.count++] = every_interface;
    }
    return list;
}

void pcap_set_promisc(int sock, const char* name, int on) {
    ifreq request = {};
    strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    if (ioctl(sock, SIOCGIFFLAGS, &request) != 0) {
        return;
    }
    unsigned flags = static_cast<unsigned short>(request.ifr_flags);
    flags = on ? flags | IFF_PROMISC : flags & ~static_cast<unsigned>(IFF_PROMISC);
    request.ifr_flags = static_cast<short>(flags);
    (void)ioctl(sock, SIOCSIFFLAGS, &request);
}

pcap_sockets pcap_open_sockets(const pcap_interfaces& interfaces, const sock_fprog* filter, int promisc,
                               uint64_t ring_size) {
    const socket_plan plan = {filter, interfaces.count, ring_size};
    pcap_interfaces left = interfaces;
    pcap_sockets sockets;
    while (sockets.count < left.count) {
        const char* name = left.names[sockets.count];
        frame_ring ring;
        unique_fd sock = open_socket(name, plan, &ring);
        if (!sock) {
            close_ring(&ring);
            left.names[sockets.count] = left.names[--left.count];
            continue;
        }
        pcap_set_promisc(sock.get(), name, promisc);
        sockets.all[sockets.count++] = {std::move(sock), name, ring};
    }
    return sockets;
}

void pcap_close_sockets(pcap_sockets* sockets) {
    const int why_it_ended = errno;
    for (int i = 0; i < sockets->count; i++) {
        pcap_socket& each = sockets->all[i];
        ifreq now;
        pcap_set_promisc(each.fd.get(), ask_name(each.fd.get(), &now) ? now.ifr_name : each.name, 0);
        close_ring(&each.ring);
        each.fd.reset();  // the filter goes with it
    }
    sockets->count = 0;
    errno = why_it_ended;
}
