#include "net/network_text.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <net/if.h>
#include <string.h>

#include <algorithm>

#include "tests/unit/net/netlink_messages.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/few_fds.h"

namespace {

constexpr int no_device = 7654321;  // no interface has this index

std::string number(uint32_t value) {
    return netlink_bytes(value);
}

std::string address(const char* text) {
    char bytes[16];
    const int family = strchr(text, ':') ? AF_INET6 : AF_INET;
    EXPECT_EQ(inet_pton(family, text, bytes), 1) << text;
    return {bytes, family == AF_INET ? 4u : 16u};
}

std::string text_of(network_table table, const std::string& message) {
    heap_text text = {.limit = 10000};
    alignas(nlmsghdr) char aligned[4096];
    EXPECT_EQ(message.copy(aligned, sizeof aligned), message.size());
    network_text_add_entry(&text, table, static_cast<const nlmsghdr*>(static_cast<void*>(aligned)));
    return std::string(text.view());
}

template <typename Header>
std::string text_of(network_table table, const Header& header, const std::string& attributes) {
    return text_of(table, netlink_message(RTM_NEWLINK, netlink_bytes(header) + attributes));
}

std::string interface_text(unsigned flags, const std::string& attributes) {
    ifinfomsg header = {};
    header.ifi_index = no_device;
    header.ifi_flags = flags;
    return text_of(network_table::interfaces, header, attributes);
}

std::string address_text(unsigned char family, unsigned char length, const std::string& attributes) {
    ifaddrmsg header = {};
    header.ifa_family = family;
    header.ifa_prefixlen = length;
    header.ifa_index = no_device;
    return text_of(network_table::addresses, header, attributes);
}

rtmsg route(unsigned char family, unsigned char length) {
    rtmsg header = {};
    header.rtm_family = family;
    header.rtm_dst_len = length;
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_type = RTN_UNICAST;
    return header;
}

std::string neighbour_text(unsigned char family, unsigned short state, const std::string& attributes) {
    ndmsg header = {};
    header.ndm_family = family;
    header.ndm_ifindex = no_device;
    header.ndm_state = state;
    return text_of(network_table::neighbours, header, attributes);
}

// The table of this thread's network.
std::string whole(network_table table) {
    heap_text text = {.limit = 1 << 20};
    EXPECT_EQ(network_text_add(&text, table), 0);
    EXPECT_EQ(text.error, 0);
    return std::string(text.view());
}

bool has_line(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

const std::string via = netlink_attribute(RTA_GATEWAY, address("10.0.0.1"));
const std::string on = netlink_attribute(RTA_OIF, number(no_device));

}  // namespace

TEST(network_text, route_over_several_hops_or_another_family_says_so) {
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 0), netlink_attribute(RTA_MULTIPATH, number(0))),
              "0.0.0.0/0 multipath\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 0), netlink_attribute(RTA_VIA, number(0)) + on),
              "0.0.0.0/0 via another family device #7654321\n");
}

TEST(network_text, of_an_interface) {
    const std::string mtu = netlink_attribute(IFLA_MTU, number(1500));
    const std::string mac = netlink_attribute(IFLA_ADDRESS, "\x02\xff\x01\x10\x0a\xa0");
    const uint64_t counts[10] = {1, 2, 3ULL << 40, 4, 5, 6, 7, ~0ULL, 9, 10};
    EXPECT_EQ(interface_text(IFF_UP | IFF_PROMISC,
                             mtu + mac + netlink_attribute(IFLA_STATS64, netlink_bytes(counts))),
              "#7654321 index 7654321 state up promiscuous mtu 1500 mac 02:ff:01:10:0a:a0 rx_packets 1 "
              "tx_packets 2 rx_bytes 3298534883328 tx_bytes 4 rx_errors 5 tx_errors 6 rx_dropped 7 "
              "tx_dropped 18446744073709551615\n");
    EXPECT_EQ(interface_text(0, mac + mtu),
              "#7654321 index 7654321 state down mtu 1500 mac 02:ff:01:10:0a:a0\n");
    EXPECT_EQ(interface_text(0, ""), "#7654321 index 7654321 state down\n");
}

TEST(network_text, of_an_address) {
    EXPECT_EQ(address_text(AF_INET, 24, netlink_attribute(IFA_ADDRESS, address("192.168.1.5"))),
              "#7654321 address 192.168.1.5/24\n");
    EXPECT_EQ(address_text(AF_INET6, 64, netlink_attribute(IFA_ADDRESS, address("fe80::1"))),
              "#7654321 address fe80::1/64\n");
}

TEST(network_text, of_a_point_to_point_link_has_its_own_address) {
    EXPECT_EQ(address_text(AF_INET, 32,
                           netlink_attribute(IFA_ADDRESS, address("10.0.0.2")) +
                               netlink_attribute(IFA_LOCAL, address("10.0.0.1"))),
              "#7654321 address 10.0.0.1/32\n");
}

TEST(network_text, of_a_route) {
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 0), via + on),
              "0.0.0.0/0 via 10.0.0.1 device #7654321\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 8),
                      on + netlink_attribute(RTA_DST, address("10.0.0.0")) +
                          netlink_attribute(RTA_PRIORITY, number(100)) +
                          netlink_attribute(RTA_TABLE, number(RT_TABLE_MAIN))),
              "10.0.0.0/8 device #7654321 metric 100\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET6, 0),
                      on + netlink_attribute(RTA_GATEWAY, address("fe80::1"))),
              "::/0 via fe80::1 device #7654321\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET6, 32),
                      on + netlink_attribute(RTA_DST, address("2001:db8::"))),
              "2001:db8::/32 device #7654321\n");
}

TEST(network_text, of_a_route_names_another_table_and_another_type) {
    rtmsg header = route(AF_INET, 0);
    header.rtm_table = 7;
    EXPECT_EQ(text_of(network_table::routes, header, on), "0.0.0.0/0 device #7654321 table 7\n");
    EXPECT_EQ(text_of(network_table::routes, header, on + netlink_attribute(RTA_TABLE, number(1000))),
              "0.0.0.0/0 device #7654321 table 1000\n");
    const std::pair<unsigned char, const char*> types[] = {
        {RTN_BLACKHOLE, "blackhole 0.0.0.0/0\n"},
        {RTN_UNREACHABLE, "unreachable 0.0.0.0/0\n"},
        {RTN_PROHIBIT, "prohibit 0.0.0.0/0\n"},
        {RTN_THROW, "throw 0.0.0.0/0\n"},
        {RTN_UNSPEC, "0.0.0.0/0\n"},
        {RTN_NAT, "0.0.0.0/0\n"},
        {255, "0.0.0.0/0\n"},
    };
    header.rtm_table = RT_TABLE_MAIN;
    for (auto [type, line] : types) {
        header.rtm_type = type;
        EXPECT_EQ(text_of(network_table::routes, header, ""), line);
    }
}

TEST(network_text, has_no_routes_to_the_own_addresses) {
    rtmsg header = route(AF_INET, 32);
    header.rtm_table = RT_TABLE_LOCAL;
    EXPECT_EQ(text_of(network_table::routes, header, on), "");
}

TEST(network_text, of_a_neighbour) {
    const std::string to = netlink_attribute(NDA_DST, address("10.0.0.1"));
    EXPECT_EQ(neighbour_text(AF_INET, NUD_REACHABLE,
                             to + netlink_attribute(NDA_LLADDR, std::string("\x02\0\0\0\0\x01", 6))),
              "10.0.0.1 device #7654321 mac 02:00:00:00:00:01 state reachable\n");
    EXPECT_EQ(neighbour_text(AF_INET6, NUD_FAILED, netlink_attribute(NDA_DST, address("fe80::2"))),
              "fe80::2 device #7654321 state failed\n");
    const std::pair<unsigned short, const char*> states[] = {
        {NUD_NONE, "none"},           {NUD_INCOMPLETE, "incomplete"},
        {NUD_STALE, "stale"},         {NUD_DELAY, "delay"},
        {NUD_PROBE, "probe"},         {NUD_NOARP, "noarp"},
        {NUD_PERMANENT, "permanent"}, {0x100, "none"},
    };
    for (auto [state, name] : states) {
        EXPECT_EQ(neighbour_text(AF_INET, state, to),
                  "10.0.0.1 device #7654321 state " + std::string(name) + "\n");
    }
}

TEST(network_text, has_only_ipv4_and_ipv6) {
    EXPECT_EQ(neighbour_text(AF_BRIDGE, NUD_REACHABLE, ""), "");
    EXPECT_EQ(text_of(network_table::routes, route(128, 0), on), "");
    EXPECT_EQ(address_text(0, 0, ""), "");
}

TEST(network_text, skips_values_that_are_too_short) {
    EXPECT_EQ(interface_text(0, netlink_attribute(IFLA_STATS64, std::string(63, '\0'))),
              "#7654321 index 7654321 state down\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET6, 0), via + netlink_attribute(RTA_OIF, "abc")),
              "::/0\n");
    EXPECT_EQ(address_text(AF_INET6, 64, netlink_attribute(IFA_ADDRESS, address("10.0.0.1"))),
              "#7654321/64\n");
}

TEST(network_text, skips_entries_that_are_too_short_for_their_header) {
    const std::string whole_message = netlink_message(RTM_NEWROUTE, netlink_bytes(route(AF_INET, 0)));
    for (uint32_t length = NLMSG_HDRLEN; length < whole_message.size(); length++) {
        std::string shorter = whole_message;
        memcpy(shorter.data(), &length, sizeof length);
        EXPECT_EQ(text_of(network_table::routes, shorter), "") << length;
    }
    EXPECT_EQ(text_of(network_table::routes, whole_message), "0.0.0.0/0\n");
}

TEST(network_text, ends_an_entry_at_a_malformed_attribute) {
    for (unsigned short length : {0, 3, 9, 65535}) {
        const rtattr head = {length, RTA_GATEWAY};
        EXPECT_EQ(
            text_of(network_table::routes, route(AF_INET, 0), on + netlink_bytes(head) + address("10.0.0.1")),
            "0.0.0.0/0 device #7654321\n")
            << length;
    }
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 0), on + "\x08"), "0.0.0.0/0 device #7654321\n");
    EXPECT_EQ(text_of(network_table::routes, route(AF_INET, 0), netlink_attribute(0x1fff, "abcd") + on),
              "0.0.0.0/0 device #7654321\n");
}

TEST(network_text, fails_without_descriptors) {
    heap_text text = {.limit = 1000};
    few_fds_left none(0);
    EXPECT_EQ(network_text_add(&text, network_table::routes), EMFILE);
    EXPECT_EQ(text.bytes.length, 0u);
}

NETWORK_TEST(network_text, of_a_network_has_its_interfaces) {
    ASSERT_TRUE(run_command("ip link set near0 promisc on address 02:00:00:00:00:01 mtu 1400"));
    ASSERT_TRUE(run_command("ip link set near1 down"));
    const std::string text = whole(network_table::interfaces);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5) << text;
    const unsigned index = if_nametoindex("near0");
    const std::string begin = "near0 index " + std::to_string(index) +
                              " state up promiscuous mtu 1400 mac 02:00:00:00:00:01 rx_packets 0 ";
    EXPECT_NE(text.find(begin), std::string::npos) << text;
    EXPECT_NE(text.find("\nnear1 index "), std::string::npos) << text;
    EXPECT_NE(text.find(" state down mtu 1500 mac "), std::string::npos) << text;
    frame_sender("far0").send(frame_of(100, 'x'));
    EXPECT_NE(whole(network_table::interfaces).find(" rx_packets 1 tx_packets 0 rx_bytes 100 tx_bytes 0 "),
              std::string::npos);
}

NETWORK_TEST(network_text, of_a_network_has_its_addresses) {
    ASSERT_TRUE(run_command("ip addr add 192.168.7.5/24 dev near0"));
    ASSERT_TRUE(run_command("ip addr add 10.1.0.1 peer 10.1.0.2 dev near1"));
    ASSERT_TRUE(run_command("ip -6 addr add 2001:db8::5/64 dev near0 nodad"));
    const std::string text = whole(network_table::addresses);
    for (const char* line :
         {"near0 address 192.168.7.5/24", "near1 address 10.1.0.1/32", "near0 address 2001:db8::5/64"}) {
        EXPECT_TRUE(has_line(text, line)) << line << "\n" << text;
    }
}

NETWORK_TEST(network_text, of_a_network_has_its_routes_and_neighbours) {
    ASSERT_TRUE(run_command("ip link set near0 arp on"));
    ASSERT_TRUE(run_command("ip addr add 192.168.7.5/24 dev near0"));
    ASSERT_TRUE(run_command("ip -6 addr add 2001:db8::5/64 dev near0 nodad"));
    ASSERT_TRUE(run_command("ip route add default via 192.168.7.1 metric 5"));
    ASSERT_TRUE(run_command("ip route add 10.0.0.0/8 via 192.168.7.2 table 700"));
    ASSERT_TRUE(run_command("ip route add unreachable 10.2.0.0/16"));
    ASSERT_TRUE(run_command("ip -6 route add default via 2001:db8::1 metric 6"));
    ASSERT_TRUE(run_command("ip neigh add 192.168.7.9 lladdr 02:00:00:00:00:09 dev near0 nud permanent"));
    ASSERT_TRUE(run_command("ip -6 neigh add 2001:db8::9 lladdr 02:00:00:00:00:0a dev near0 nud stale"));
    const std::string routes = whole(network_table::routes);
    for (const char* line :
         {"0.0.0.0/0 via 192.168.7.1 device near0 metric 5", "192.168.7.0/24 device near0",
          "10.0.0.0/8 via 192.168.7.2 device near0 table 700", "unreachable 10.2.0.0/16",
          "::/0 via 2001:db8::1 device near0 metric 6", "2001:db8::/64 device near0 metric 256"}) {
        EXPECT_TRUE(has_line(routes, line)) << line << "\n" << routes;
    }
    EXPECT_EQ(routes.find("192.168.7.5/32"), std::string::npos) << routes;
    const std::string neighbours = whole(network_table::neighbours);
    EXPECT_TRUE(has_line(neighbours, "192.168.7.9 device near0 mac 02:00:00:00:00:09 state permanent"))
        << neighbours;
    EXPECT_TRUE(has_line(neighbours, "2001:db8::9 device near0 mac 02:00:00:00:00:0a state stale"))
        << neighbours;
}

NETWORK_TEST(network_text, of_a_large_network_is_whole) {
    ASSERT_TRUE(
        run_command("(for i in $(seq 150); do echo link add a$i type veth peer name b$i;"
                    " echo route add 10.9.$i.0/24 dev near0;"
                    " echo route add 10.8.$i.0/24 dev near0; done) | ip -batch -"));
    const std::string interfaces = whole(network_table::interfaces);
    EXPECT_EQ(std::count(interfaces.begin(), interfaces.end(), '\n'), 305);
    const std::string routes = whole(network_table::routes);
    EXPECT_TRUE(has_line(routes, "10.9.150.0/24 device near0"));
    EXPECT_GE(std::count(routes.begin(), routes.end(), '\n'), 300);
}
