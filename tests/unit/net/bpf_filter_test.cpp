#include "net/bpf_filter.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "tests/unit/support/pipes.h"

// As the kernel numbers them in <linux/bpf_common.h>.
enum : uint16_t {
    ldh = 0x28,
    ldb = 0x30,
    ld = 0x20,
    ldh_x = 0x48,
    ld_x = 0x40,
    ldxb = 0xb1,
    jeq = 0x15,
    jset = 0x45,
    ret = 0x06,
};

namespace {

void expect_same(std::span<const sock_filter> program, std::span<const sock_filter> wanted) {
    ASSERT_EQ(program.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); i++) {
        EXPECT_EQ(program[i].code, wanted[i].code) << "instruction " << i;
        EXPECT_EQ(program[i].jt, wanted[i].jt) << "instruction " << i;
        EXPECT_EQ(program[i].jf, wanted[i].jf) << "instruction " << i;
        EXPECT_EQ(program[i].k, wanted[i].k) << "instruction " << i;
    }
}

// Connections.

union test_address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

uint16_t port_of(int sock) {
    test_address address = {};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(sock, &address.any, &size), 0);
    return ntohs(address.any.sa_family == AF_INET ? address.v4.sin_port : address.v6.sin6_port);
}

struct connection {
    unique_fd browser;
    unique_fd server;

    uint32_t out() const { return uint32_t{port_of(server.get())} << 16 | port_of(browser.get()); }
    uint32_t in() const { return uint32_t{port_of(browser.get())} << 16 | port_of(server.get()); }
};

test_address loopback(int family, bool any_address) {
    test_address address = {};
    address.any.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        address.v6.sin6_addr = any_address ? in6addr_any : in6addr_loopback;
    }
    return address;
}

// Connects a browser of one family to a server of another. Empty if this machine lacks one of them.
std::optional<connection> connect_over_loopback(int browser_family, int server_family) {
    bool mixed = browser_family != server_family;
    unique_fd listener(socket(server_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    test_address address = loopback(server_family, mixed);
    socklen_t size = server_family == AF_INET ? sizeof address.v4 : sizeof address.v6;
    if (!listener || bind(listener.get(), &address.any, size) != 0 || listen(listener.get(), 1) != 0) {
        return std::nullopt;
    }
    test_address target = loopback(browser_family, false);
    target.v4.sin_port = htons(port_of(listener.get()));  // at the same offset in both families
    unique_fd browser(socket(browser_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    size = browser_family == AF_INET ? sizeof target.v4 : sizeof target.v6;
    if (connect(browser.get(), &target.any, size) != 0) {
        return std::nullopt;
    }
    unique_fd server(accept(listener.get(), nullptr, nullptr));
    return connection{std::move(browser), std::move(server)};
}

unique_malloc<sock_filter> filter_of(const unique_fd& sock, int* count) {
    return unique_malloc<sock_filter>(filter_me(sock.get(), count));
}

void expect_ipv4_program(const connection& c) {
    int count = 0;
    auto program = filter_of(c.server, &count);
    ASSERT_TRUE(program);
    const sock_filter wanted[] = {
        {ldh, 0, 0, 12},      {jeq, 0, 5, 0x800},  {ldxb, 0, 0, 14}, {ld_x, 0, 0, 14},
        {jeq, 1, 0, c.out()}, {jeq, 0, 1, c.in()}, {ret, 0, 0, 0},   {ret, 0, 0, 0xffffffff},
    };
    expect_same({program.get(), static_cast<size_t>(count)}, wanted);
}

// Packets.

enum : uint8_t { icmp = 1, tcp = 6, udp = 17, sctp = 132 };

std::string word16(unsigned number) {
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

std::string ethernet(unsigned type, const std::string& body) {
    return std::string(12, '\x02') + word16(type) + body;
}

std::string ports(unsigned source, unsigned destination) {
    return word16(source) + word16(destination) + std::string(16, '\0');
}

struct ipv4_shape {
    unsigned option_words = 0;
    unsigned fragment = 0;  // flags and offset
};

std::string ipv4(uint8_t protocol, const std::string& body, ipv4_shape shape = {}) {
    std::string header(20 + 4 * shape.option_words, '\x01');
    header[0] = static_cast<char>(0x40 | (5 + shape.option_words));
    header.replace(6, 2, word16(shape.fragment));
    header[9] = static_cast<char>(protocol);
    return ethernet(0x800, header + body);
}

std::string ipv6(uint8_t next_header, const std::string& body) {
    std::string header(40, '\0');
    header[0] = 0x60;
    header[6] = static_cast<char>(next_header);
    return ethernet(0x86dd, header + body);
}

std::string vlan(const std::string& frame) {
    return frame.substr(0, 12) + word16(0x8100) + word16(7) + frame.substr(12);
}

// Runs a program in the kernel, as the filter of a socket that frames are sent to.
class kernel_filter {
public:
    explicit kernel_filter(std::span<const sock_filter> program) {
        sock_fprog filter = {static_cast<unsigned short>(program.size()),
                             const_cast<sock_filter*>(program.data())};
        EXPECT_EQ(setsockopt(ends_.b.get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter), 0);
    }
    bool accepts(const std::string& frame) const {
        (void)!send(ends_.a.get(), frame.data(), frame.size(), 0);  // fails if the filter drops it
        std::string got(frame.size() + 1, '\0');
        ssize_t size = recv(ends_.b.get(), got.data(), got.size(), MSG_DONTWAIT);
        EXPECT_TRUE(size < 0 || static_cast<size_t>(size) == frame.size()) << "cut";
        return size >= 0;
    }

private:
    test_socketpair ends_{SOCK_DGRAM};
};

std::vector<sock_filter> port_program(uint32_t ipv4_port) {
    std::vector<sock_filter> program(bpf_port_program.begin(), bpf_port_program.end());
    for (size_t test : bpf_port_ipv4_tests) {
        program[test].k = ipv4_port;
    }
    return program;
}

kernel_filter connection_filter(const connection& c) {
    int count = 0;
    auto program = filter_of(c.server, &count);
    EXPECT_TRUE(program);
    return kernel_filter({program.get(), static_cast<size_t>(count)});
}

}  // namespace

TEST(bpf_port_program, has_the_24_documented_instructions) {
    const sock_filter wanted[] = {
        /*  0 */ {ldh, 0, 0, 12},
        /*  1 */ {jeq, 0, 8, 0x86dd},
        /*  2 */ {ldb, 0, 0, 20},
        /*  3 */ {jeq, 2, 0, 0x84},
        /*  4 */ {jeq, 1, 0, 6},
        /*  5 */ {jeq, 0, 17, 0x11},
        /*  6 */ {ldh, 0, 0, 54},
        /*  7 */ {jeq, 14, 0, 22},
        /*  8 */ {ldh, 0, 0, 56},
        /*  9 */ {jeq, 12, 13, 22},
        /* 10 */ {jeq, 0, 12, 0x800},
        /* 11 */ {ldb, 0, 0, 23},
        /* 12 */ {jeq, 2, 0, 0x84},
        /* 13 */ {jeq, 1, 0, 6},
        /* 14 */ {jeq, 0, 8, 0x11},
        /* 15 */ {ldh, 0, 0, 20},
        /* 16 */ {jset, 6, 0, 0x1fff},
        /* 17 */ {ldxb, 0, 0, 14},
        /* 18 */ {ldh_x, 0, 0, 14},
        /* 19 */ {jeq, 2, 0, 22},
        /* 20 */ {ldh_x, 0, 0, 16},
        /* 21 */ {jeq, 0, 1, 22},
        /* 22 */ {ret, 0, 0, 0},
        /* 23 */ {ret, 0, 0, 0x40000},
    };
    expect_same(bpf_port_program, wanted);
}

TEST(bpf_port_program, drops_the_port_of_each_protocol_in_both_directions) {
    kernel_filter filter(port_program(8080));
    for (uint8_t protocol : {tcp, udp, sctp}) {
        EXPECT_FALSE(filter.accepts(ipv4(protocol, ports(8080, 5)))) << int{protocol};
        EXPECT_FALSE(filter.accepts(ipv4(protocol, ports(5, 8080)))) << int{protocol};
        EXPECT_TRUE(filter.accepts(ipv4(protocol, ports(5, 6)))) << int{protocol};
        EXPECT_FALSE(filter.accepts(ipv6(protocol, ports(22, 5)))) << int{protocol};
        EXPECT_FALSE(filter.accepts(ipv6(protocol, ports(5, 22)))) << int{protocol};
        EXPECT_TRUE(filter.accepts(ipv6(protocol, ports(5, 6)))) << int{protocol};
    }
}

TEST(bpf_port_program, port_of_ipv6_stays_22) {
    kernel_filter filter(port_program(8080));
    EXPECT_TRUE(filter.accepts(ipv6(tcp, ports(8080, 5))));
    EXPECT_TRUE(filter.accepts(ipv4(tcp, ports(22, 5))));
}

TEST(bpf_port_program, accepts_packets_without_ports) {
    kernel_filter filter(port_program(22));
    EXPECT_TRUE(filter.accepts(ipv4(icmp, ports(22, 22))));
    EXPECT_TRUE(filter.accepts(ipv6(58, ports(22, 22))));
    EXPECT_TRUE(filter.accepts(ethernet(0x806, ports(22, 22) + std::string(40, '\0'))));
    EXPECT_TRUE(filter.accepts(vlan(ipv4(tcp, ports(22, 22)))));
}

TEST(bpf_port_program, finds_ports_after_ip_options) {
    kernel_filter filter(port_program(22));
    for (unsigned words : {1u, 5u, 10u}) {
        EXPECT_FALSE(filter.accepts(ipv4(tcp, ports(5, 22), {.option_words = words}))) << words;
        EXPECT_TRUE(filter.accepts(ipv4(tcp, ports(5, 6), {.option_words = words}))) << words;
    }
}

TEST(bpf_port_program, drops_only_the_first_fragment) {
    kernel_filter filter(port_program(22));
    constexpr unsigned more = 0x2000;
    EXPECT_FALSE(filter.accepts(ipv4(udp, ports(5, 22), {.fragment = more})));
    EXPECT_TRUE(filter.accepts(ipv4(udp, ports(5, 22), {.fragment = more | 1})));
    EXPECT_TRUE(filter.accepts(ipv4(udp, ports(5, 22), {.fragment = 0x1000})));
    EXPECT_FALSE(filter.accepts(ipv4(udp, ports(5, 22), {.fragment = 0x4000})));
}

TEST(bpf_port_program, drops_frames_that_are_too_short) {
    kernel_filter filter(port_program(22));
    EXPECT_FALSE(filter.accepts(std::string(13, 'x')));
    EXPECT_FALSE(filter.accepts(ethernet(0x800, "")));
    EXPECT_TRUE(filter.accepts(ethernet(0x801, "")));
}

TEST(filter_me, ipv4_program_compares_both_ports_at_once) {
    auto c = connect_over_loopback(AF_INET, AF_INET);
    ASSERT_TRUE(c);
    expect_ipv4_program(*c);
}

TEST(filter_me, ipv4_mapped_address_gives_the_ipv4_program) {
    auto c = connect_over_loopback(AF_INET, AF_INET6);
    if (!c) {
        GTEST_SKIP() << "needs IPv6";
    }
    expect_ipv4_program(*c);
}

TEST(filter_me, ipv6_program_matches_only_tcp) {
    auto c = connect_over_loopback(AF_INET6, AF_INET6);
    if (!c) {
        GTEST_SKIP() << "needs IPv6";
    }
    int count = 0;
    auto program = filter_of(c->server, &count);
    ASSERT_TRUE(program);
    const sock_filter wanted[] = {
        {ldh, 0, 0, 12},       {jeq, 0, 6, 0x86dd},  {ldb, 0, 0, 20}, {jeq, 0, 4, 6},          {ld, 0, 0, 54},
        {jeq, 1, 0, c->out()}, {jeq, 0, 1, c->in()}, {ret, 0, 0, 0},  {ret, 0, 0, 0xffffffff},
    };
    expect_same({program.get(), static_cast<size_t>(count)}, wanted);
}

TEST(filter_me, count_may_be_null) {
    auto c = connect_over_loopback(AF_INET, AF_INET);
    ASSERT_TRUE(c);
    EXPECT_TRUE(filter_of(c->server, nullptr));
}

TEST(filter_me, returns_null_without_an_ip_connection) {
    int count = 5;
    test_pipe pipe;
    test_socketpair pair;
    unique_fd unconnected(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_FALSE(filter_of(pipe.in, &count));
    EXPECT_FALSE(filter_of(pair.a, &count));
    EXPECT_FALSE(filter_of(unconnected, &count));
    EXPECT_FALSE(filter_of(unique_fd(), &count));
    EXPECT_EQ(count, 5);
}

TEST(filter_me, drops_only_the_two_directions_of_the_connection) {
    auto c = connect_over_loopback(AF_INET, AF_INET);
    ASSERT_TRUE(c);
    unsigned near_port = port_of(c->server.get());
    unsigned far_port = port_of(c->browser.get());
    kernel_filter filter = connection_filter(*c);
    EXPECT_FALSE(filter.accepts(ipv4(tcp, ports(near_port, far_port))));
    EXPECT_FALSE(filter.accepts(ipv4(tcp, ports(far_port, near_port))));
    EXPECT_FALSE(filter.accepts(ipv4(tcp, ports(far_port, near_port), {.option_words = 10})));
    EXPECT_TRUE(filter.accepts(ipv4(tcp, ports(near_port, far_port ^ 1))));
    EXPECT_TRUE(filter.accepts(ipv4(tcp, ports(near_port, near_port))));
    EXPECT_TRUE(filter.accepts(ipv6(tcp, ports(near_port, far_port))));
    EXPECT_TRUE(filter.accepts(ethernet(0x806, std::string(40, '\0'))));
}

TEST(filter_me, ipv4_program_ignores_the_protocol) {
    auto c = connect_over_loopback(AF_INET, AF_INET);
    ASSERT_TRUE(c);
    std::string same_ports = ports(port_of(c->server.get()), port_of(c->browser.get()));
    EXPECT_FALSE(connection_filter(*c).accepts(ipv4(udp, same_ports)));
    EXPECT_FALSE(connection_filter(*c).accepts(ipv4(tcp, same_ports, {.fragment = 7})));
}

TEST(filter_me, ipv6_program_drops_only_tcp_of_the_connection) {
    auto c = connect_over_loopback(AF_INET6, AF_INET6);
    if (!c) {
        GTEST_SKIP() << "needs IPv6";
    }
    unsigned near_port = port_of(c->server.get());
    unsigned far_port = port_of(c->browser.get());
    kernel_filter filter = connection_filter(*c);
    EXPECT_FALSE(filter.accepts(ipv6(tcp, ports(near_port, far_port))));
    EXPECT_FALSE(filter.accepts(ipv6(tcp, ports(far_port, near_port))));
    EXPECT_TRUE(filter.accepts(ipv6(udp, ports(near_port, far_port))));
    EXPECT_TRUE(filter.accepts(ipv6(tcp, ports(near_port, far_port ^ 1))));
    EXPECT_TRUE(filter.accepts(ipv4(tcp, ports(near_port, far_port))));
    EXPECT_TRUE(filter.accepts(ipv6(44, std::string(8, '\0') + ports(near_port, far_port))));  // a fragment
}
