#include "tools/archiveview/facts/sockets.h"

#include <gtest/gtest.h>

#include "tests/unit/archiveview/process_texts.h"
#include "tests/unit/archiveview/socket_texts.h"

using namespace archiveview;

namespace {

std::string link_of(uint64_t inode) {
    return "fd/3 -> socket:[" + std::to_string(inode) + "]\n";
}

// Processes that have one socket each in a look: (look, pid, inode).
process_list processes_with(const std::vector<std::array<uint64_t, 3>>& sockets) {
    process_list list;
    for (const auto& [look, pid, inode] : sockets) {
        stat_values values;
        values.pid = static_cast<int>(pid);
        add_stat(&list, static_cast<int>(look), values);
        processes_add_look_file(&list, static_cast<int>(look), values.pid, "links", link_of(inode));
    }
    processes_finish(&list, 5);
    return list;
}

// The owner of a socket with inode 4711 that is in these looks.
int owner_in(const std::vector<int>& looks, const process_list& processes) {
    socket_list list;
    for (const int look : looks) {
        sockets_add_table(&list, "tcp", look, inet_heading + inet_line({.inode = "4711"}));
    }
    sockets_join(&list, processes);
    return list.sockets.at(0).pid;
}

struct owned {
    std::string protocol, local, remote;
    int pid;
};

socket_list owned_sockets(const std::vector<owned>& sockets) {
    socket_list list;
    for (const owned& one : sockets) {
        socket_facts socket;
        socket.protocol = one.protocol;
        socket.local = one.local;
        socket.remote = one.remote;
        socket.pid = one.pid;
        socket.in_second_look = true;
        list.sockets.push_back(socket);
    }
    return list;
}

}  // namespace

TEST(archiveview_sockets, the_owner_has_a_descriptor_with_the_inode) {
    EXPECT_EQ(owner_in({1}, processes_with({{1, 5, 4711}, {1, 6, 4712}})), 5);
    EXPECT_EQ(owner_in({1}, processes_with({{1, 6, 4712}})), 0);
}

TEST(archiveview_sockets, lack_an_owner_if_a_process_should_have_them) {
    socket_facts socket;
    socket.protocol = "tcp";
    socket.inode = 4711;
    EXPECT_TRUE(sockets_lacks_owner(socket));
    socket.pid = 1;
    EXPECT_FALSE(sockets_lacks_owner(socket));
    socket.pid = 0;
    socket.protocol = "netlink";  // of the kernel
    EXPECT_FALSE(sockets_lacks_owner(socket));
    socket.protocol = "tcp";
    socket.inode = 0;  // waits for late segments
    EXPECT_FALSE(sockets_lacks_owner(socket));
}

TEST(archiveview_sockets, pipes_and_files_with_the_same_number_own_no_socket) {
    process_list processes;
    processes_add_look_file(&processes, 1, 5, "links", "fd/1 -> pipe:[4711]\nfd/2 -> /socket:[4711]\n");
    processes_finish(&processes, 5);
    EXPECT_EQ(owner_in({1}, processes), 0);
}

TEST(archiveview_sockets, of_processes_that_share_a_socket_the_lowest_pid_owns_it) {
    EXPECT_EQ(owner_in({1}, processes_with({{1, 9, 4711}, {1, 5, 4711}, {1, 7, 4711}})), 5);
}

TEST(archiveview_sockets, a_socket_of_the_first_look_goes_to_its_owner_then) {
    const process_list processes = processes_with({{0, 5, 4711}, {1, 5, 1}, {1, 9, 1}});
    EXPECT_EQ(owner_in({0}, processes), 5);
}

TEST(archiveview_sockets, a_socket_that_was_passed_on_goes_to_its_owner_in_the_second_look) {
    const process_list processes = processes_with({{0, 5, 4711}, {1, 5, 1}, {1, 9, 4711}});
    EXPECT_EQ(owner_in({0, 1}, processes), 9);
    EXPECT_EQ(owner_in({1}, processes), 9);
    EXPECT_EQ(owner_in({0}, processes), 5);
}

TEST(archiveview_sockets, a_process_that_has_gone_owned_its_sockets_before) {
    const process_list processes = processes_with({{0, 5, 4711}, {0, 6, 1}, {1, 6, 4711}});
    EXPECT_EQ(owner_in({1}, processes), 6);
    EXPECT_EQ(owner_in({0}, processes), 5);
}

TEST(archiveview_sockets, nobody_owns_a_socket_without_an_inode) {
    socket_list list;
    sockets_add_table(&list, "tcp", 1, inet_heading + inet_line({.inode = "0"}));
    sockets_join(&list, processes_with({{1, 5, 0}}));
    EXPECT_EQ(list.sockets.at(0).pid, 0);
}

TEST(archiveview_sockets, a_connection_is_found_before_the_socket_that_listens) {
    const socket_list list = owned_sockets({{"tcp", "0.0.0.0:80", "0.0.0.0:0", 1},
                                            {"tcp", "192.0.2.1:80", "0.0.0.0:0", 2},
                                            {"tcp", "192.0.2.1:80", "192.0.2.9:5000", 3}});
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", "192.0.2.9:5000"), 3);
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", "192.0.2.9:5001"), 2);
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.2:80", "192.0.2.9:5001"), 1);
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.2:81", "192.0.2.9:5001"), 0);
    EXPECT_EQ(sockets_owner(list, "udp", "192.0.2.1:80", "192.0.2.9:5000"), 0);
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", ""), 2);
    EXPECT_EQ(sockets_owner(list, "tcp", "", ""), 0);
}

TEST(archiveview_sockets, a_connection_without_an_owner_goes_to_the_socket_that_listens) {
    const socket_list list =
        owned_sockets({{"tcp", "192.0.2.1:80", "192.0.2.9:5000", 0}, {"tcp", "0.0.0.0:80", "0.0.0.0:0", 4}});
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", "192.0.2.9:5000"), 4);
}

TEST(archiveview_sockets, sockets_for_both_kinds_of_ip_have_ipv4_connections) {
    const socket_list list = owned_sockets({{"tcp6", "[::]:80", "[::]:0", 1},
                                            {"tcp6", "[::ffff:192.0.2.1]:80", "[::ffff:192.0.2.9]:5000", 2},
                                            {"udp6", "[::ffff:0.0.0.0]:53", "[::]:0", 3},
                                            {"tcp", "0.0.0.0:22", "0.0.0.0:0", 4}});
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", "192.0.2.9:5000"), 2);
    EXPECT_EQ(sockets_owner(list, "tcp6", "[::ffff:192.0.2.1]:80", "[::ffff:192.0.2.9]:5000"), 2);
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", "192.0.2.9:1"), 1);
    EXPECT_EQ(sockets_owner(list, "tcp", "[2001:db8::1]:80", "[2001:db8::2]:1"), 1);
    EXPECT_EQ(sockets_owner(list, "udp", "192.0.2.1:53", ""), 3);
    EXPECT_EQ(sockets_owner(list, "tcp", "[2001:db8::1]:22", ""), 0);
}

TEST(archiveview_sockets, an_address_that_was_used_twice_goes_to_the_process_of_the_second_look) {
    socket_list list =
        owned_sockets({{"udp", "0.0.0.0:53", "0.0.0.0:0", 1}, {"udp", "0.0.0.0:53", "0.0.0.0:0", 2}});
    list.sockets[0].in_second_look = false;
    EXPECT_EQ(sockets_owner(list, "udp", "192.0.2.1:53", ""), 2);
}

TEST(archiveview_sockets, owners_are_asked_for_after_the_join) {
    socket_list list;
    sockets_add_table(&list, "tcp", 1, inet_heading + inet_line({.local = "00000000:0050", .inode = "4711"}));
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", ""), 0);
    sockets_join(&list, processes_with({{1, 5, 4711}}));
    EXPECT_EQ(sockets_owner(list, "tcp", "192.0.2.1:80", ""), 5);
}
