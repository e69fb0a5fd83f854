#include <gtest/gtest.h>

#include "tests/unit/archiveview/socket_texts.h"
#include "tools/archiveview/facts/socket_address.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

socket_facts only_socket(const socket_list& list) {
    EXPECT_EQ(list.sockets.size(), 1u);
    return list.sockets.empty() ? socket_facts() : list.sockets[0];
}

socket_facts parsed(std::string_view protocol, const std::string& text) {
    return only_socket(list_of(protocol, text));
}

std::string state_of(std::string_view protocol, const std::string& number) {
    return parsed(protocol, inet_heading + inet_line({.state = number})).state;
}

}  // namespace

TEST(archiveview_socket_table, addresses_are_in_the_byte_order_of_the_device) {
    EXPECT_EQ(socket_address("0100007F:1F9A", false), "127.0.0.1:8090");
    EXPECT_EQ(socket_address("7F000001:1F9A", true), "127.0.0.1:8090");
    EXPECT_EQ(socket_address("B80D0120000000000000000001000000:0050", false), "[2001:db8::1]:80");
    EXPECT_EQ(socket_address("20010DB8000000000000000000000001:0050", true), "[2001:db8::1]:80");
    EXPECT_EQ(socket_address("0000000000000000FFFF0000010200C0:FFFF", false), "[::ffff:192.0.2.1]:65535");
    EXPECT_EQ(socket_address("00000000000000000000000000000000:0000", false), "[::]:0");
}

TEST(archiveview_socket_table, other_texts_are_no_addresses) {
    for (const char* text :
         {"", ":", "0100007F", "0100007F:", "0100007F:10000", "0100007G:0050", "100007F:0050",
          "-100007F:0050", "0100007F:-050", "0100007F0100007F:0050", "local_address"}) {
        EXPECT_EQ(socket_address(text, false), std::nullopt) << text;
    }
}

TEST(archiveview_socket_table, addresses_lose_the_prefix_of_ipv4_only) {
    EXPECT_EQ(plain_address("[::ffff:192.0.2.1]:80"), "192.0.2.1:80");
    EXPECT_EQ(plain_address("192.0.2.1:80"), "192.0.2.1:80");
    EXPECT_EQ(plain_address("[::ffff:0:1]:80"), "[::ffff:0:1]:80");
    EXPECT_EQ(plain_address("[::ffff:192.0.2.1"), "[::ffff:192.0.2.1");
    EXPECT_EQ(plain_address(""), "");
}

TEST(archiveview_socket_table, a_tcp_socket_has_addresses_a_state_queues_and_an_inode) {
    const socket_facts socket = parsed(
        "tcp",
        inet_heading +
            "   1: 010200C0:0050 0A0200C0:E946 08 0000A001:0000000F 00:00000000 00000000     0        0 "
            "22680229 1 0000000040bbddd6 20 4 30 10 -1                     \n");
    EXPECT_EQ(socket.protocol, "tcp");
    EXPECT_EQ(socket.local, "192.0.2.1:80");
    EXPECT_EQ(socket.remote, "192.0.2.10:59718");
    EXPECT_EQ(socket.state, "CLOSE_WAIT");
    EXPECT_EQ(socket.inode, 22680229u);
    EXPECT_EQ(socket.send_queue, 0xa001u);
    EXPECT_EQ(socket.receive_queue, 15u);
    EXPECT_EQ(socket.drops, 0u);
    EXPECT_EQ(socket.pid, 0);
}

TEST(archiveview_socket_table, states_of_tcp_have_their_usual_names) {
    EXPECT_EQ(state_of("tcp", "01"), "ESTABLISHED");
    EXPECT_EQ(state_of("tcp", "03"), "SYN_RECV");
    EXPECT_EQ(state_of("tcp6", "06"), "TIME_WAIT");
    EXPECT_EQ(state_of("tcp", "0A"), "LISTEN");
    EXPECT_EQ(state_of("tcp", "0B"), "CLOSING");
    EXPECT_EQ(state_of("tcp", "0C"), "SYN_RECV");
    EXPECT_EQ(state_of("tcp", "0D"), "");
    EXPECT_EQ(state_of("tcp", "00"), "");
}

TEST(archiveview_socket_table, a_udp_socket_has_drops_and_a_state_only_if_it_is_connected) {
    const socket_facts socket =
        parsed("udp", inet_heading + inet_line({.state = "07", .rest = "2 00000000f029e396 31"}));
    EXPECT_EQ(socket.drops, 31u);
    EXPECT_EQ(socket.state, "");
    EXPECT_EQ(state_of("udp", "01"), "ESTABLISHED");
    EXPECT_EQ(state_of("raw6", "07"), "");
}

TEST(archiveview_socket_table, unix_sockets_have_paths_with_any_bytes) {
    const auto line = [](const char* end) {
        return std::string("Num       RefCount Protocol Flags    Type St Inode Path\n") +
               "0000000011313e6e: 00000002 00000000 00010000 0001 01 22681494" + end + "\n";
    };
    EXPECT_EQ(parsed("unix", line(" /run/a b ")).local, "/run/a b ");
    EXPECT_EQ(parsed("unix", line(" @abstract")).local, "@abstract");
    EXPECT_EQ(parsed("unix", line("")).local, "");
    EXPECT_EQ(parsed("unix", line("")).inode, 22681494u);
    EXPECT_EQ(parsed("unix", line("")).state, "LISTEN");
}

TEST(archiveview_socket_table, unix_sockets_have_states) {
    const auto state = [](const char* flags_to_state) {
        return parsed("unix",
                      std::string("Num\n00000000: 00000002 00000000 ") + flags_to_state + " 22681494 /a\n")
            .state;
    };
    EXPECT_EQ(state("00000000 0001 01"), "");
    EXPECT_EQ(state("00000000 0001 02"), "CONNECTING");
    EXPECT_EQ(state("00000000 0001 03"), "CONNECTED");
    EXPECT_EQ(state("00000000 0005 04"), "DISCONNECTING");
    EXPECT_EQ(state("00000000 0001 05"), "");
}

TEST(archiveview_socket_table, packet_sockets_have_a_protocol_and_an_interface) {
    const std::string heading = "sk               RefCnt Type Proto  Iface R Rmem   User   Inode\n";
    const socket_facts socket =
        parsed("packet", heading + "00000000abcdef01 3      3    0003   2     1 640    0      4711\n");
    EXPECT_EQ(socket.local, "0x0003 on interface 2");
    EXPECT_EQ(socket.inode, 4711u);
    EXPECT_EQ(socket.receive_queue, 640u);
    EXPECT_EQ(
        parsed("packet", heading + "00000000abcdef01 3      3    88cc   0     1 0      0      4711\n").local,
        "0x88cc on all interfaces");
}

TEST(archiveview_socket_table, netlink_sockets_have_a_protocol_and_a_port) {
    const std::string heading =
        "sk               Eth Pid        Groups   Rmem     Wmem     Dump  Locks    Drops    Inode\n";
    const socket_facts socket = parsed(
        "netlink",
        heading + "0000000048775027 15  4711       00000001 5        6        0     2        7        99\n");
    EXPECT_EQ(socket.local, "uevent:4711");
    EXPECT_EQ(socket.inode, 99u);
    EXPECT_EQ(socket.receive_queue, 5u);
    EXPECT_EQ(socket.send_queue, 6u);
    EXPECT_EQ(socket.drops, 7u);
    EXPECT_EQ(parsed("netlink", heading + "0000000048775027 30  0 0 5 6 0 2 7 99\n").local, "30:0");
}

TEST(archiveview_socket_table, netlink_sockets_of_old_kernels_have_no_inode) {
    const socket_list list = list_of("netlink",
                                     "sk       Eth Pid    Groups   Rmem     Wmem     Dump     Locks\n"
                                     "c7a0b000 0   0      00000000 0        0        (null) 2\n"
                                     "c7a0b400 0   812    00000011 0        0        (null) 2\n");
    ASSERT_EQ(list.sockets.size(), 2u);
    EXPECT_EQ(list.sockets[1].local, "route:812");
    EXPECT_EQ(list.sockets[1].inode, 0u);
}

TEST(archiveview_socket_table, a_socket_of_both_looks_has_the_values_of_the_second) {
    socket_list list;
    sockets_add_table(&list, "tcp", 0, inet_heading + inet_line({.state = "01", .inode = "7"}));
    sockets_add_table(&list, "tcp", 1, inet_heading + inet_line({.state = "08", .inode = "7"}));
    const socket_facts socket = only_socket(list);
    EXPECT_EQ(socket.state, "CLOSE_WAIT");
    EXPECT_TRUE(socket.in_first_look);
    EXPECT_TRUE(socket.in_second_look);
}

TEST(archiveview_socket_table, looks_may_come_in_any_order) {
    socket_list list;
    sockets_add_table(&list, "tcp", 1, inet_heading + inet_line({.state = "08", .inode = "7"}));
    sockets_add_table(&list, "tcp", 0, inet_heading + inet_line({.state = "01", .inode = "7"}));
    EXPECT_EQ(only_socket(list).state, "CLOSE_WAIT");
    EXPECT_TRUE(only_socket(list).in_first_look);
}

TEST(archiveview_socket_table, connections_without_an_inode_are_told_apart_by_their_addresses) {
    socket_list list;
    const std::string lines = inet_line({.remote = "0100007F:0001", .state = "06", .inode = "0"}) +
                              inet_line({.remote = "0100007F:0002", .state = "06", .inode = "0"});
    sockets_add_table(&list, "tcp", 0, inet_heading + lines);
    sockets_add_table(&list, "tcp", 1, inet_heading + lines);
    ASSERT_EQ(list.sockets.size(), 2u);
    EXPECT_TRUE(list.sockets[0].in_first_look && list.sockets[0].in_second_look);
}

TEST(archiveview_socket_table, unix_sockets_without_an_inode_are_told_apart_by_their_number) {
    const socket_list list = list_of("unix",
                                     "Num\n0000000a: 00000002 00000000 00000000 0001 03 0\n"
                                     "0000000b: 00000002 00000000 00000000 0001 03 0\n");
    EXPECT_EQ(list.sockets.size(), 2u);
}

TEST(archiveview_socket_table, a_cut_table_has_no_socket_with_a_cut_inode) {
    const std::string whole = inet_heading + inet_line({.inode = "4711"});
    for (size_t length = 0; length <= whole.size(); length++) {
        for (const socket_facts& socket : list_of("tcp", whole.substr(0, length)).sockets) {
            EXPECT_EQ(socket.inode, 4711u) << length;
        }
    }
    EXPECT_EQ(list_of("tcp", whole).sockets.size(), 1u);
}

TEST(archiveview_socket_table, a_cut_unix_table_has_no_cut_path) {
    const std::string whole = "Num\n0000000a: 00000002 00000000 00000000 0001 03 4711 /run/a\n";
    for (size_t length = 0; length < whole.size(); length++) {
        for (const socket_facts& socket : list_of("unix", whole.substr(0, length)).sockets) {
            EXPECT_EQ(socket.inode, 4711u) << length;
            EXPECT_EQ(socket.local, "") << length;
        }
    }
}

TEST(archiveview_socket_table, odd_lines_and_tables_are_ignored) {
    EXPECT_TRUE(list_of("tcp", "").sockets.empty());
    EXPECT_TRUE(list_of("tcp", inet_heading + "\n\n1:\n1: 0100007F:0050\n" + inet_line({.inode = "x"}) +
                                   inet_line({.inode = "99999999999999999999999"}) +
                                   inet_line({.local = "1:2"}))
                    .sockets.empty());
    EXPECT_TRUE(list_of("unix", "Num\n0 1 2 3 4 5 6 7\n0000: 1 2\n").sockets.empty());
    EXPECT_TRUE(list_of("packet", "sk Inode\n\n1\n1 x\n").sockets.empty());
    EXPECT_TRUE(list_of("route", inet_heading + inet_line({})).sockets.empty());
}

TEST(archiveview_socket_table, queues_of_another_shape_are_empty) {
    for (const char* queues : {"00000001", ":", "x:y", ":00000000"}) {
        const socket_facts socket = parsed("tcp", inet_heading + inet_line({.queues = queues}));
        EXPECT_EQ(socket.receive_queue, 0u) << queues;
    }
}

TEST(archiveview_socket_table, sockets_are_bounded) {
    std::string table = inet_heading;
    for (size_t i = 1; i <= socket_limit + 5; i++) {
        table += inet_line({.inode = std::to_string(i)});
    }
    EXPECT_EQ(list_of("tcp", table).sockets.size(), socket_limit);
}
