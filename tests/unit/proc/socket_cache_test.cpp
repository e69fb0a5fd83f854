#include "proc/socket_cache.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "proc/proc_socket.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/temp_dir.h"

namespace {

socklen_t any_port(sockaddr_in* address) {
    *address = {};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sizeof *address;
}

unsigned long inode_of(int fd) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return static_cast<unsigned long>(status.st_ino);
}

std::string link_of(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

class socket_cache_lookup_of_real_sockets : public testing::Test {
protected:
    std::string fresh(int fd) {
        char buf[256] = "";
        int length = proc_skinfo_lookup(getpid(), inode_of(fd), buf, sizeof buf);
        EXPECT_EQ(length, static_cast<int>(strlen(buf)));
        return buf;
    }
    std::string cached(int fd) {
        char buf[256] = "";
        int length = socket_cache_lookup(cache_.get(), link_of(fd).c_str(), inode_of(fd), buf, sizeof buf);
        EXPECT_EQ(length, static_cast<int>(strlen(buf)));
        return buf;
    }
    // The cache gives the same text as the tables. Tries again if the connection's state changed meanwhile.
    void expect_same(int fd) {
        std::string before;
        std::string got[2];
        do {
            before = fresh(fd);
            got[0] = cached(fd);
            got[1] = cached(fd);
        } while (fresh(fd) != before);
        EXPECT_EQ(got[0], before);
        EXPECT_EQ(got[1], before);
    }

    unique_fd listening(int family) {
        unique_fd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 address = {};
        address.sin6_family = static_cast<sa_family_t>(family);
        socklen_t length =
            family == AF_INET6 ? sizeof address : any_port(reinterpret_cast<sockaddr_in*>(&address));
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(fd.get(), 128), 0);
        return fd;
    }
    // Connects to `listener` and keeps both ends.
    void connect_to(int listener) {
        sockaddr_in6 address = {};
        socklen_t length = sizeof address;
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        if (address.sin6_family == AF_INET6) {
            address.sin6_addr = in6addr_loopback;
        }
        unique_fd near(socket(address.sin6_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(near.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        unique_fd far(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(far);
        sockets_.push_back(std::move(near));
        sockets_.push_back(std::move(far));
    }
    // Enough connections for the cache to ask the kernel.
    void connect_many(int listener) {
        for (int i = 0; i < 20; i++) {
            connect_to(listener);
        }
    }

    unique_socket_cache cache_ = socket_cache_new();
    std::vector<unique_fd> sockets_;
};

}  // namespace

TEST_F(socket_cache_lookup_of_real_sockets, tcp) {
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    expect_same(listener.get());
    EXPECT_NE(cached(listener.get()).find("TCP_LISTEN"), std::string::npos);
    for (const unique_fd& fd : sockets_) {
        EXPECT_NE(fresh(fd.get()).find("TCP_ESTABLISHED"), std::string::npos);
        expect_same(fd.get());
    }
}

TEST_F(socket_cache_lookup_of_real_sockets, tcp_over_ipv6) {
    unique_fd probe(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe) {
        GTEST_SKIP() << "needs IPv6";
    }
    unique_fd listener = listening(AF_INET6);
    connect_many(listener.get());
    expect_same(listener.get());
    for (const unique_fd& fd : sockets_) {
        EXPECT_NE(fresh(fd.get()).find("TCP_ESTABLISHED"), std::string::npos);
        expect_same(fd.get());
    }
}

TEST_F(socket_cache_lookup_of_real_sockets, finds_sockets_without_memory_for_their_list) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    unique_fd in_no_table(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // Reads a whole long table. From now on the cache asks the kernel.
    EXPECT_EQ(cached(in_no_table.get()), "");
    const int fd = sockets_[0].get();
    const std::string link = link_of(fd);
    const unsigned long inode = inode_of(fd);
    char buf[256] = "";
    int length;
    {
        scoped_memory_shortage shortage;
        length = socket_cache_lookup(cache_.get(), link.c_str(), inode, buf, sizeof buf);
    }
    EXPECT_EQ(length, static_cast<int>(strlen(buf)));
    EXPECT_EQ(buf, fresh(fd));
    expect_same(fd);
}

TEST_F(socket_cache_lookup_of_real_sockets, follows_a_socket_that_connects_or_changes_its_state) {
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    unique_fd fresh_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(cached(sockets_[0].get()), fresh(sockets_[0].get()));
    EXPECT_EQ(cached(fresh_socket.get()), "");
    sockaddr_in address;
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    ASSERT_EQ(connect(fresh_socket.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_NE(cached(fresh_socket.get()).find("TCP_ESTABLISHED"), std::string::npos);
    expect_same(fresh_socket.get());
    ASSERT_EQ(shutdown(fresh_socket.get(), SHUT_WR), 0);
    EXPECT_EQ(cached(fresh_socket.get()).find("TCP_ESTABLISHED"), std::string::npos);
    expect_same(fresh_socket.get());
    unique_fd far(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    expect_same(far.get());
    far.reset();
    expect_same(fresh_socket.get());
}

TEST_F(socket_cache_lookup_of_real_sockets, tells_apart_listeners_that_share_a_port_or_have_a_device) {
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    sockaddr_in shared = {};
    socklen_t length = any_port(&shared);
    std::vector<unique_fd> listeners;
    for (int i = 0; i < 4; i++) {
        listeners.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int on = 1;
        int fd = listeners.back().get();
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on), 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&shared), length), 0);
        ASSERT_EQ(listen(fd, 1), 0);
        ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&shared), &length), 0);
    }
    for (const unique_fd& fd : listeners) {
        EXPECT_NE(cached(fd.get()).find("TCP_LISTEN"), std::string::npos);
        expect_same(fd.get());
    }
}

TEST_F(socket_cache_lookup_of_real_sockets, unix_sockets_by_their_path) {
    temp_dir dir;
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    EXPECT_EQ(cached(sockets_[0].get()), fresh(sockets_[0].get()));
    const std::vector<std::string> names = {dir.path("plain"), dir.path("two\nlines"),
                                            std::string("\0abstract", 9), std::string("\0with\0nul", 9), ""};
    for (const std::string& name : names) {
        unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        expect_same(fd.get());
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::copy(name.begin(), name.end(), address.sun_path);
        size_t length = offsetof(sockaddr_un, sun_path) + name.size() + (!name.empty() && name[0] == '/');
        ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)), 0);
        EXPECT_NE(fresh(fd.get()), "");
        expect_same(fd.get());
        ASSERT_EQ(listen(fd.get(), 1), 0);
        expect_same(fd.get());
    }
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair), 0);
    unique_fd one(pair[0]);
    unique_fd other(pair[1]);
    expect_same(one.get());
    EXPECT_EQ(cached(other.get()), "");
}

TEST_F(socket_cache_lookup_of_real_sockets, sockets_of_other_kinds_have_no_endpoints) {
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    const int kinds[][3] = {
        {AF_INET, SOCK_DGRAM, 0}, {AF_NETLINK, SOCK_RAW, 0}, {AF_UNIX, SOCK_SEQPACKET, 0}};
    for (const auto& [family, type, protocol] : kinds) {
        unique_fd fd(socket(family, type | SOCK_CLOEXEC, protocol));
        ASSERT_TRUE(fd);
        expect_same(fd.get());
        EXPECT_EQ(cached(fd.get()), "");
    }
}
