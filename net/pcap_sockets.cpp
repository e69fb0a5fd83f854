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

namespace {

constexpr const char* every_interface = "any";

// Not in network order, so it matches no protocol: nothing arrives before the socket is bound.
constexpr int protocol_before_bind = 3;

// All sockets of a capture together may queue this much, but no more than this part of the machine's memory.
constexpr uint64_t queue_bytes = 16u << 20;
constexpr uint64_t memory_per_queue = 32;

uint64_t memory_size() {
    struct sysinfo info = {};
    return sysinfo(&info) == 0 ? uint64_t{info.totalram} * info.mem_unit : 0;
}

// What each socket may queue. A slow browser must not cost frames of a burst.
size_t queue_share(int socket_count) {
    return static_cast<size_t>(std::min(queue_bytes, memory_size() / memory_per_queue)) /
           static_cast<size_t>(socket_count);
}

// With a virtually indexed data cache, the kernel and a program can see different contents of the same
// memory.
#if defined(__mips__)
constexpr bool can_share_memory = false;
#else
constexpr bool can_share_memory = true;
#endif

// The settings that all sockets of a capture share.
struct socket_plan {
    const sock_fprog* filter;
    int promisc;
    int socket_count;
    uint64_t ring_size;
};

// Rings are only for machines with much memory, since a ring is resident from the start; a queue takes memory
// only for what it holds. Several sockets have no rings: a ring may hand over a frame later than another one
// that was received after it, and records are in the order of their timestamps.
frame_ring open_ring(int sock, const socket_plan& plan) {
    const bool has_memory = memory_size() / memory_per_queue >= queue_bytes;
    if (!can_share_memory || plan.socket_count > 1 || !has_memory) {
        return {};
    }
    return frame_ring_open(sock, static_cast<size_t>(std::min(queue_bytes, plan.ring_size)));
}

// Without the privilege, the system's limit applies.
void set_queue_size(int sock, size_t size) {
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

// Gets the current name of a bound socket's interface: it may have been renamed, and another interface may
// have its old name.
bool get_name(int sock, ifreq* answer) {
    sockaddr_ll address = {};
    socklen_t size = sizeof address;
    if (getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return false;
    }
    ifreq request = {};
    request.ifr_ifindex = address.sll_ifindex;
    if (ioctl(sock, SIOCGIFNAME, &request) != 0) {
        return false;
    }
    *answer = request;
    return true;
}

bool attach(int sock, const sock_fprog& filter) {
    return setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

// The kernel copies as much of a frame into a ring as the filter accepts, up to 64 KiB if the card merges
// frames. Attaches `filter`, or one that accepts every frame, cut so that no more is copied than is recorded.
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

void close_socket(pcap_socket* opened) {
    opened->ring.memory.reset();
    opened->fd.reset();
}

// On failure, the descriptor is empty and the error has been reported.
void open_socket(pcap_socket* opened, const socket_plan& plan) {
    opened->fd = unique_fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, protocol_before_bind));
    if (!opened->fd) {
        perror("socket: ");
        return;
    }
    // The filter is attached before the first frame can arrive, but its errors are reported after bind's.
    const int sock = opened->fd.get();
    bool is_attached = true;
    opened->ring = open_ring(sock, plan);
    if (opened->ring) {
        is_attached = attach_to_ring(sock, plan.filter) || !plan.filter;
    } else {
        set_queue_size(sock, queue_share(plan.socket_count));
        is_attached = !plan.filter || attach(sock, *plan.filter);
    }
    const int filter_error = is_attached ? 0 : errno;
    const char* failed = nullptr;
    if (!bind_to(sock, opened->name)) {
        failed = "bind: ";
    } else if (!is_attached) {
        errno = filter_error;
        failed = "setsockopt attach filter: ";
    }
    if (failed) {
        perror(failed);
        close_socket(opened);
        return;
    }
    pcap_set_promisc(sock, opened->name, plan.promisc);
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

void pcap_open_sockets(pcap_sockets* sockets, const pcap_interfaces& interfaces, const sock_fprog* filter,
                       int promisc, uint64_t ring_size) {
    const socket_plan plan = {filter, promisc, interfaces.count, ring_size};
    pcap_interfaces left = interfaces;
    while (sockets->count < left.count) {
        const int i = sockets->count;
        sockets->all[i].name = left.names[i];
        open_socket(&sockets->all[i], plan);
        if (sockets->all[i].fd) {
            sockets->count++;
        } else {
            left.names[i] = left.names[--left.count];
        }
    }
}

void pcap_close_sockets(pcap_sockets* sockets) {
    const int saved = errno;
    for (int i = 0; i < sockets->count; i++) {
        pcap_socket& each = sockets->all[i];
        ifreq now;
        pcap_set_promisc(each.fd.get(), get_name(each.fd.get(), &now) ? now.ifr_name : each.name, 0);
        close_socket(&each);  // which detaches the filter
    }
    sockets->count = 0;
    errno = saved;
}

pcap_sockets::~pcap_sockets() {
    pcap_close_sockets(this);
}
