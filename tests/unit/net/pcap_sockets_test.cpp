#include "net/pcap_sockets.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/pipes.h"

namespace {

using names = std::vector<std::string>;

// In these tests, names of interfaces begin with "eth".
unsigned test_index(const char* name) {
    return strncmp(name, "eth", 3) == 0 ? 1 : 0;
}

names listed(std::string text) {
    pcap_interfaces list = pcap_list_interfaces(text.data(), test_index);
    return {list.names, list.names + list.count};
}

pcap_interfaces list_of(std::initializer_list<const char*> wanted) {
    pcap_interfaces list;
    for (const char* name : wanted) {
        list.names[list.count++] = name;
    }
    return list;
}

names opened(const pcap_sockets& sockets) {
    names all;
    for (int i = 0; i < sockets.count; i++) {
        all.emplace_back(sockets.all[i].name);
    }
    return all;
}

}  // namespace

TEST(pcap_list_interfaces, keeps_the_order) {
    EXPECT_EQ(listed("eth2,eth0,eth1"), (names{"eth2", "eth0", "eth1"}));
}

TEST(pcap_list_interfaces, no_valid_name_means_any) {
    for (const char* text : {"", ",", ",,,", "nope", "nope,nor,this", "any", "etc", " eth0"}) {
        EXPECT_EQ(listed(text), names{"any"}) << text;
    }
}

TEST(pcap_list_interfaces, skips_unknown_and_empty_names) {
    EXPECT_EQ(listed(",nope,eth0,,any,eth1,"), (names{"eth0", "eth1"}));
}

TEST(pcap_list_interfaces, seventh_name_is_ignored) {
    EXPECT_EQ(listed("eth0,eth1,eth2,eth3,eth4,eth5,eth6,eth7"),
              (names{"eth0", "eth1", "eth2", "eth3", "eth4", "eth5"}));
}

TEST(pcap_list_interfaces, duplicate_is_replaced_by_the_next_name) {
    EXPECT_EQ(listed("eth0,eth0,eth1"), (names{"eth0", "eth1"}));
}

TEST(pcap_list_interfaces, duplicate_at_the_end_is_dropped) {
    EXPECT_EQ(listed("eth0,eth0"), names{"eth0"});
    EXPECT_EQ(listed("eth0,eth1,eth1"), (names{"eth0", "eth1"}));
    EXPECT_EQ(listed("eth0,eth1,eth0,eth1"), (names{"eth0", "eth1"}));
}

TEST(pcap_list_interfaces, replacement_is_not_checked) {
    EXPECT_EQ(listed("eth0,eth0,nope"), (names{"eth0", "nope"}));
}

TEST(pcap_list_interfaces, replacement_is_compared_only_with_the_rest_of_the_list) {
    EXPECT_EQ(listed("eth0,eth0,eth0"), (names{"eth0", "eth0"}));
    EXPECT_EQ(listed("eth0,eth1,eth1,eth0"), (names{"eth0", "eth1", "eth0"}));
    EXPECT_EQ(listed("eth0,eth1,eth0,eth0"), (names{"eth0", "eth1", "eth0"}));
}

TEST(pcap_list_interfaces, names_may_be_of_any_length) {
    std::string longest = "eth" + std::string(5000, '7');
    EXPECT_EQ(listed("eth0," + longest), (names{"eth0", longest}));
}

NETWORK_TEST(pcap_open_sockets, promiscuous_mode_is_on_until_they_are_closed) {
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0", "near1"}), nullptr, 1);
    EXPECT_EQ(opened(sockets), (names{"near0", "near1"}));
    EXPECT_TRUE(is_promiscuous("near0"));
    EXPECT_TRUE(is_promiscuous("near1"));
    EXPECT_TRUE(is_cloexec(sockets.all[0].fd.get()));
    EXPECT_EQ(capturing_sockets(), 2);
    pcap_close_sockets(&sockets);
    EXPECT_FALSE(is_promiscuous("near0"));
    EXPECT_FALSE(is_promiscuous("near1"));
    EXPECT_EQ(capturing_sockets(), 0);
}

NETWORK_TEST(pcap_sockets, closes_its_sockets_at_the_end_of_its_life) {
    {
        pcap_sockets sockets;
        pcap_open_sockets(&sockets, list_of({"near0", "near1"}), nullptr, 1);
        EXPECT_EQ(capturing_sockets(), 2);
    }
    EXPECT_EQ(capturing_sockets(), 0);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_open_sockets, without_promisc_promiscuous_mode_is_switched_off) {
    ASSERT_TRUE(run_command("ip link set near0 promisc on"));
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 0);
    EXPECT_FALSE(is_promiscuous("near0"));
    pcap_close_sockets(&sockets);
}

NETWORK_TEST(pcap_open_sockets, earlier_promiscuous_mode_is_switched_off) {
    ASSERT_TRUE(run_command("ip link set near0 promisc on"));
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 1);
    pcap_close_sockets(&sockets);
    EXPECT_FALSE(is_promiscuous("near0"));
    EXPECT_EQ(flags_of("near0") & (IFF_UP | IFF_NOARP), IFF_UP | IFF_NOARP);
}

NETWORK_TEST(pcap_close_sockets, renamed_interface_leaves_promiscuous_mode) {
    ASSERT_TRUE(run_command("ip link set near1 promisc on"));
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 1);
    for (const char* renaming : {"near0 name moved0", "near1 name near0"}) {
        std::string name(renaming, 5);
        ASSERT_TRUE(run_command("ip link set " + name + " down"));
        ASSERT_TRUE(run_command(std::string("ip link set ") + renaming));
    }
    ASSERT_TRUE(is_promiscuous("moved0"));
    pcap_close_sockets(&sockets);
    EXPECT_FALSE(is_promiscuous("moved0"));
    EXPECT_TRUE(is_promiscuous("near0")) << "an interface that was not captured";
}

NETWORK_TEST(pcap_open_sockets, unknown_name_opens_all_interfaces) {
    ASSERT_TRUE(forbid_rings());
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"any"}), nullptr, 1);
    ASSERT_EQ(sockets.count, 1);
    frame_sender("far1").send(frame_of(60, 'a'));
    char frame[100];
    EXPECT_EQ(recv(sockets.all[0].fd.get(), frame, sizeof frame, 0), 60);
    EXPECT_FALSE(is_promiscuous("near1"));
}

NETWORK_TEST(pcap_open_sockets, bad_filter_is_reported_for_each_interface) {
    sock_filter endless = BPF_JUMP(BPF_JMP | BPF_JA, 200, 0, 0);
    sock_fprog filter = {1, &endless};
    std::string reported = capture_stderr([&filter] {
        pcap_sockets sockets;
        pcap_open_sockets(&sockets, list_of({"near0", "near1"}), &filter, 1);
        EXPECT_EQ(sockets.count, 0);
    });
    std::string line = std::string("setsockopt attach filter: : ") + strerror(EINVAL) + "\n";
    EXPECT_EQ(reported, line + line);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_open_sockets, one_interface_has_a_ring) {
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 0);
    ASSERT_EQ(sockets.count, 1);
    EXPECT_NE(sockets.all[0].ring.memory, nullptr);
    EXPECT_LE(sockets.all[0].ring.size(), 16u << 20);
    pcap_close_sockets(&sockets);
    EXPECT_EQ(sockets.all[0].ring.memory, nullptr);
}

NETWORK_TEST(pcap_open_sockets, ring_is_not_larger_than_useful) {
    constexpr size_t useful = 1 << 20;
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 0, useful);
    ASSERT_NE(sockets.all[0].ring.memory, nullptr);
    EXPECT_LE(sockets.all[0].ring.size(), useful);
    pcap_close_sockets(&sockets);
}

NETWORK_TEST(pcap_open_sockets, several_interfaces_have_no_rings) {
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0", "near1"}), nullptr, 0);
    ASSERT_EQ(sockets.count, 2);
    EXPECT_EQ(sockets.all[0].ring.memory, nullptr);
    EXPECT_EQ(sockets.all[1].ring.memory, nullptr);
    pcap_close_sockets(&sockets);
}

NETWORK_TEST(pcap_open_sockets, without_a_ring_the_queue_is_larger_than_the_default) {
    ASSERT_TRUE(forbid_rings());
    unique_fd ordinary(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    pcap_sockets sockets;
    pcap_open_sockets(&sockets, list_of({"near0"}), nullptr, 0);
    ASSERT_EQ(sockets.count, 1);
    int sizes[2] = {};
    socklen_t length = sizeof(int);
    getsockopt(ordinary.get(), SOL_SOCKET, SO_RCVBUF, &sizes[0], &length);
    getsockopt(sockets.all[0].fd.get(), SOL_SOCKET, SO_RCVBUF, &sizes[1], &length);
    EXPECT_GT(sizes[1], sizes[0] * 4);
}

TEST(pcap_open_sockets, without_the_privilege_each_interface_is_reported) {
    int status = run_in_child([] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        pcap_interfaces list = list_of({"lo", "any"});
        std::string reported = capture_stderr([&list] {
            pcap_sockets sockets;
            pcap_open_sockets(&sockets, list, nullptr, 1);
        });
        std::string line = std::string("socket: : ") + strerror(EPERM) + "\n";
        return reported == line + line ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

NETWORK_TEST(pcap_set_promisc, ignores_an_unknown_interface) {
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::string reported = capture_stderr([&sock] { pcap_set_promisc(sock.get(), "nope", 1); });
    EXPECT_EQ(reported, "");
}

NETWORK_TEST(pcap_set_promisc, name_is_cut_at_15_characters) {
    ASSERT_TRUE(run_command("ip link set near0 name a23456789012345"));
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    pcap_set_promisc(sock.get(), "a23456789012345-and-more", 1);
    EXPECT_TRUE(is_promiscuous("a23456789012345"));
}
