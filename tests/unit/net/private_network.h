// A private network for one test: two wires, each with a near end that is captured and a far end that sends.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/net_tstamp.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "common/unique_fd.h"
#include "tests/unit/support/children.h"

inline bool run_command(const std::string& command) {
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// Near ends are near0 and near1, far ends far0 and far1. The kernel sends nothing on them by itself.
inline bool make_wires() {
    for (std::string number : {"0", "1"}) {
        std::string near_end = "near" + number;
        std::string far_end = "far" + number;
        if (!run_command("ip link add " + near_end + " type veth peer name " + far_end)) {
            return false;
        }
        for (const std::string& end : {near_end, far_end}) {
            if (!run_command("ip link set " + end + " addrgenmode none arp off up")) {
                return false;
            }
        }
    }
    return true;
}

// Lets the first wire carry frames of 9000 bytes.
inline bool allow_long_frames() {
    return run_command("ip link set near0 mtu 9000") && run_command("ip link set far0 mtu 9000");
}

// Runs `work` on a thread in a private network that has the wires. Returns false if that cannot be created.
template <typename Work>
bool in_private_network(Work work) {
    bool made = false;
    std::thread([&] {
        made = unshare(CLONE_NEWNET) == 0 && make_wires();
        if (made) {
            work();
        }
    }).join();
    return made;
}

inline bool private_network_works() {
    static const bool works = geteuid() == 0 && in_private_network([] {});
    return works;
}

#define SKIP_WITHOUT_PRIVATE_NETWORK()                                                    \
    do {                                                                                  \
        if (!private_network_works()) {                                                   \
            GTEST_SKIP() << "needs root, a network namespace, veth interfaces and ip(8)"; \
        }                                                                                 \
    } while (false)

// A test whose body runs in a private network.
#define NETWORK_TEST(suite, name)                                     \
    static void suite##_##name##_in_network();                        \
    TEST(suite, name) {                                               \
        SKIP_WITHOUT_PRIVATE_NETWORK();                               \
        EXPECT_TRUE(in_private_network(suite##_##name##_in_network)); \
    }                                                                 \
    static void suite##_##name##_in_network()

// Makes the creation of receive rings fail, as on a kernel without them, for the rest of this thread's life
// and for the threads that it starts.
inline bool forbid_rings() {
    constexpr uint32_t missing = SECCOMP_RET_ERRNO | ENOPROTOOPT;
    // The lower half of an argument on a little-endian machine.
    constexpr auto argument = [](uint32_t i) {
        return static_cast<uint32_t>(offsetof(seccomp_data, args)) + 8 * i;
    };
    sock_filter lines[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(1)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SOL_PACKET, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_RX_RING, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, missing),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {std::size(lines), lines};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Defines two tests with the same body: with a receive ring, and without.
#define CAPTURE_TEST(suite, name)                       \
    static void suite##_##name##_either_way();          \
    NETWORK_TEST(suite, name) {                         \
        suite##_##name##_either_way();                  \
    }                                                   \
    NETWORK_TEST(suite, name##_without_shared_memory) { \
        ASSERT_TRUE(forbid_rings());                    \
        suite##_##name##_either_way();                  \
    }                                                   \
    static void suite##_##name##_either_way()

// Sends raw frames over an interface.
class frame_sender {
public:
    explicit frame_sender(const char* interface) : sock_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
        EXPECT_EQ(bind(sock_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    void send(const std::string& frame) {
        EXPECT_EQ(::send(sock_.get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }
    // Sends a frame whose timestamp at the other end of the wire is `time_us`, by the clock of gettimeofday.
    // If the kernel does not pass the timestamp on, it is the current time.
    void send_at(const std::string& frame, uint64_t time_us) {
        sock_txtime clock = {CLOCK_REALTIME, 0};
        EXPECT_EQ(setsockopt(sock_.get(), SOL_SOCKET, SO_TXTIME, &clock, sizeof clock), 0);
        uint64_t time_ns = time_us * 1000;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof time_ns)] = {};
        iovec piece = {const_cast<char*>(frame.data()), frame.size()};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_TXTIME;
        header->cmsg_len = CMSG_LEN(sizeof time_ns);
        memcpy(CMSG_DATA(header), &time_ns, sizeof time_ns);
        EXPECT_EQ(sendmsg(sock_.get(), &message, 0), static_cast<ssize_t>(frame.size()));
    }

private:
    unique_fd sock_;
};

// Both ends of a TCP connection over the loopback interface of this thread's network.
struct tcp_connection {
    unique_fd browser{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    unique_fd server;

    tcp_connection() {
        unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listener.get(), any, size), 0);
        EXPECT_EQ(listen(listener.get(), 1), 0);
        EXPECT_EQ(getsockname(listener.get(), any, &size), 0);
        EXPECT_EQ(connect(browser.get(), any, size), 0);
        server = unique_fd(accept(listener.get(), nullptr, nullptr));
        EXPECT_TRUE(server);
    }
};

// Sends over the loopback of this thread's network, with a socket that receives it.
inline void send_datagram(const std::string& text) {
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(sock.get(), any, sizeof address), 0);
    EXPECT_EQ(sendto(sock.get(), text.data(), text.size(), 0, any, sizeof address),
              static_cast<ssize_t>(text.size()));
}

// A frame of `size` bytes with an experimental Ethernet type, filled with `fill`.
inline std::string frame_of(size_t size, char fill) {
    std::string frame(size, fill);
    frame.replace(0, 12, std::string(12, '\x02'));
    frame.replace(12, 2, "\x88\xb5");
    return frame;
}

// Counts the packet sockets of this thread's network that receive all protocols.
inline int capturing_sockets() {
    std::ifstream lines("/proc/thread-self/net/packet");
    std::string line;
    std::getline(lines, line);
    int count = 0;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string address, references, type, protocol;
        words >> address >> references >> type >> protocol;
        count += protocol == "0003" ? 1 : 0;
    }
    return count;
}

// Counts the receive rings mapped by this process, and their bytes.
inline std::pair<int, size_t> count_rings() {
    std::ifstream maps("/proc/self/maps");
    std::pair<int, size_t> found;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("socket:[") != std::string::npos) {
            found.first++;
            found.second +=
                std::stoull(line.substr(line.find('-') + 1), nullptr, 16) - std::stoull(line, nullptr, 16);
        }
    }
    return found;
}

inline int mapped_rings() {
    return count_rings().first;
}

inline size_t mapped_ring_bytes() {
    return count_rings().second;
}

inline short flags_of(const char* interface) {
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    std::string(interface).copy(request.ifr_name, IFNAMSIZ - 1);
    EXPECT_EQ(ioctl(sock.get(), SIOCGIFFLAGS, &request), 0) << interface;
    return request.ifr_flags;
}

inline bool is_promiscuous(const char* interface) {
    return (flags_of(interface) & IFF_PROMISC) != 0;
}
