#include <gtest/gtest.h>

#include "tests/unit/archiveview/looks.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

using counters = std::map<std::string, uint64_t>;

constexpr std::string_view titles =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
    "carrier compressed\n";

}  // namespace

TEST(archiveview_look_network, interfaces_have_the_counters_of_both_directions) {
    const look l =
        look_of({{"net/dev", std::string(titles) + "    lo: 101699 7331 0 0 0 0 0 0 101699 7331 0 0 0 0 0 0\n"
                                                   "  eth0:1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"
                                                   "eth0:1: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n"}});
    ASSERT_EQ(l.interfaces.size(), 3u);
    const interface_counters& eth0 = l.interfaces[1];
    EXPECT_EQ(eth0.name, "eth0");
    EXPECT_EQ(eth0.rx_bytes, 1u);
    EXPECT_EQ(eth0.rx_packets, 2u);
    EXPECT_EQ(eth0.rx_errors, 3u);
    EXPECT_EQ(eth0.rx_dropped, 4u);
    EXPECT_EQ(eth0.tx_bytes, 9u);
    EXPECT_EQ(eth0.tx_packets, 10u);
    EXPECT_EQ(eth0.tx_errors, 11u);
    EXPECT_EQ(eth0.tx_dropped, 12u);
    EXPECT_EQ(l.interfaces[2].name, "eth0:1");
}

TEST(archiveview_look_network, interfaces_follow_the_titles_of_the_columns) {
    const look l = look_of({{"net/dev", "x\n face |packets errs new|packets errs\neth0: 1 2 3 4 5\n"}});
    ASSERT_EQ(l.interfaces.size(), 1u);
    EXPECT_EQ(l.interfaces[0].rx_packets, 1u);
    EXPECT_EQ(l.interfaces[0].rx_errors, 2u);
    EXPECT_EQ(l.interfaces[0].tx_packets, 4u);
    EXPECT_EQ(l.interfaces[0].tx_errors, 5u);
    EXPECT_EQ(l.interfaces[0].rx_bytes, 0u);
}

TEST(archiveview_look_network, interface_whose_line_is_cut_is_not_used) {
    EXPECT_TRUE(
        look_of({{"net/dev", std::string(titles) + "  eth0: 1 2 3 4 5 6 7 8 9 10"}}).interfaces.empty());
}

TEST(archiveview_look_network, protocols_have_the_protocols_name_before_that_of_the_counter) {
    const look l =
        look_of({{"net/snmp",
                  "Ip: Forwarding DefaultTTL\nIp: 2 64\n"
                  "Tcp: RtoMin MaxConn RetransSegs\nTcp: 200 -1 3758\n"},
                 {"net/netstat", "TcpExt: ListenDrops\nTcpExt: 6\n"},
                 {"net/snmp6", "Ip6InReceives                   \t6378\nUdpLite6InErrors\t0\nbroken\n"}});
    EXPECT_EQ(l.protocols, (counters{{"Ip.Forwarding", 2},
                                     {"Ip.DefaultTTL", 64},
                                     {"Tcp.RtoMin", 200},
                                     {"Tcp.RetransSegs", 3758},
                                     {"TcpExt.ListenDrops", 6},
                                     {"Ip6.InReceives", 6378},
                                     {"UdpLite6.InErrors", 0}}));
}

TEST(archiveview_look_network, protocol_whose_values_are_cut_or_missing_has_no_counters) {
    const look l =
        look_of({{"net/snmp",
                  "Udp: InErrors\nIcmp: InMsgs\nIcmp: 43\nTcp: A B C\nTcp: 1 2\nIp: InReceives OutRequests\n"
                  "Ip: 7349363 66"}});
    EXPECT_EQ(l.protocols, (counters{{"Icmp.InMsgs", 43}, {"Tcp.A", 1}, {"Tcp.B", 2}}));
}

TEST(archiveview_look_network, protocol_with_a_huge_name_is_ignored) {
    const std::string name = std::string(100000, 'x') + ": ";
    EXPECT_TRUE(look_of({{"net/snmp", name + "a b\n" + name + "1 2\n"}}).protocols.empty());
}
