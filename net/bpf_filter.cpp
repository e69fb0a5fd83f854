#include "net/bpf_filter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <span>

namespace {

constexpr uint32_t ipv4 = 0x800;  // Ethernet types
constexpr uint32_t ipv6 = 0x86dd;
constexpr uint32_t tcp = 6;  // IP protocols
constexpr uint32_t udp = 0x11;
constexpr uint32_t sctp = 0x84;
constexpr uint32_t drop = 0;
constexpr uint32_t whole_frame = 0xffffffff;

// Replaced by a connection's two ports, which the programs compare as one word.
constexpr uint32_t both_ports = 0;

constexpr auto connection_ipv4 = bpf_program({
    /* 0 */ bpf_ldh(12),
    /* 1 */ bpf_jeq(ipv4, 2, 7),
    /* 2 */ bpf_ldxb(14),
    /* 3 */ bpf_ld_x(14),
    /* 4 */ bpf_jeq(both_ports, 6, 5),
    /* 5 */ bpf_jeq(both_ports, 6, 7),
    /* 6 */ bpf_ret(drop),
    /* 7 */ bpf_ret(whole_frame),
});
constexpr size_t connection_ipv4_tests[] = {4, 5};

constexpr auto connection_ipv6 = bpf_program({
    /* 0 */ bpf_ldh(12),
    /* 1 */ bpf_jeq(ipv6, 2, 8),
    /* 2 */ bpf_ldb(20),
    /* 3 */ bpf_jeq(tcp, 4, 8),
    /* 4 */ bpf_ld(54),
    /* 5 */ bpf_jeq(both_ports, 7, 6),
    /* 6 */ bpf_jeq(both_ports, 7, 8),
    /* 7 */ bpf_ret(drop),
    /* 8 */ bpf_ret(whole_frame),
});
constexpr size_t connection_ipv6_tests[] = {5, 6};

// More than the longer program needs.
constexpr size_t program_bytes = 1024;

struct connection_ports {
    uint16_t local;  // in host order
    uint16_t peer;
};

sock_filter* connection_program(std::span<const sock_filter> program, const size_t (&tests)[2],
                                connection_ports ports, int* count) {
    sock_filter* copy = static_cast<sock_filter*>(malloc(program_bytes));
    if (!copy) {
        return nullptr;
    }
    memcpy(copy, program.data(), program.size_bytes());
    copy[tests[0]].k = uint32_t{ports.local} << 16 | ports.peer;  // what we send
    copy[tests[1]].k = uint32_t{ports.peer} << 16 | ports.local;  // what we receive
    if (count) {
        *count = static_cast<int>(program.size());
    }
    return copy;
}

union socket_address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    sockaddr_storage storage;
};
static_assert(sizeof(socket_address) == 128);

}  // namespace

sock_filter* filter_me(int sock, int* count) {
    socket_address peer = {};
    socket_address local = {};
    socklen_t peer_size = sizeof peer;
    socklen_t local_size = sizeof local;
    if (getpeername(sock, &peer.any, &peer_size) != 0 || getsockname(sock, &local.any, &local_size) != 0 ||
        peer.any.sa_family != local.any.sa_family) {
        return nullptr;
    }
    if (peer.any.sa_family == AF_INET) {
        return connection_program(connection_ipv4, connection_ipv4_tests,
                                  {ntohs(local.v4.sin_port), ntohs(peer.v4.sin_port)}, count);
    }
    if (peer.any.sa_family != AF_INET6) {
        return nullptr;
    }
    connection_ports ports = {ntohs(local.v6.sin6_port), ntohs(peer.v6.sin6_port)};
    // A peer with an IPv4-mapped address uses IPv4 on the wire.
    return IN6_IS_ADDR_V4MAPPED(&peer.v6.sin6_addr)
               ? connection_program(connection_ipv4, connection_ipv4_tests, ports, count)
               : connection_program(connection_ipv6, connection_ipv6_tests, ports, count);
}

constexpr std::array<sock_filter, bpf_port_program_size> bpf_port_program = bpf_program({
    /*  0 */ bpf_ldh(12),
    /*  1 */ bpf_jeq(ipv6, 2, 10),
    /*  2 */ bpf_ldb(20),
    /*  3 */ bpf_jeq(sctp, 6, 4),
    /*  4 */ bpf_jeq(tcp, 6, 5),
    /*  5 */ bpf_jeq(udp, 6, 23),
    /*  6 */ bpf_ldh(54),
    /*  7 */ bpf_jeq(22, 22, 8),
    /*  8 */ bpf_ldh(56),
    /*  9 */ bpf_jeq(22, 22, 23),
    /* 10 */ bpf_jeq(ipv4, 11, 23),
    /* 11 */ bpf_ldb(23),
    /* 12 */ bpf_jeq(sctp, 15, 13),
    /* 13 */ bpf_jeq(tcp, 15, 14),
    /* 14 */ bpf_jeq(udp, 15, 23),
    /* 15 */ bpf_ldh(20),
    /* 16 */ bpf_jset(0x1fff, 23, 17),
    /* 17 */ bpf_ldxb(14),
    /* 18 */ bpf_ldh_x(14),
    /* 19 */ bpf_jeq(22, 22, 20),
    /* 20 */ bpf_ldh_x(16),
    /* 21 */ bpf_jeq(22, 22, 23),
    /* 22 */ bpf_ret(drop),
    /* 23 */ bpf_ret(0x40000),
});
