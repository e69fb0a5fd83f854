#include "proc/proc_socket.h"

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
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using table = socket_row::table;

constexpr const char* tcp_head =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode        "
    "    "
    "                                         \n";
constexpr const char* tcp6_head =
    "  sl  local_address                         remote_address                        st tx_queue rx_queue "
    "tr "
    "tm->when retrnsmt   uid  timeout inode\n";
constexpr const char* unix_head = "Num       RefCount Protocol Flags    Type St Inode Path\n";

std::string tcp_line(const std::string& local, const std::string& remote, const std::string& state,
                     const std::string& inode) {
    return "   0: " + local + " " + remote + " " + state +
           " 00000000:00000000 00:00000000 00000000     0        0 " + inode +
           " 1 0000000000000000 100 0 0 10 0\n";
}

std::string unix_line(const std::string& inode, const std::string& path) {
    return "0000000000000000: 00000002 00000000 00010000 0001 01 " + inode + path + "\n";
}

// A made-up proc file system with nothing but socket tables.
class proc_skinfo_lookup_at_tree : public testing::Test {
protected:
    void add(const std::string& name, const std::string& text) { dir_.write_file("net/" + name, text); }

    std::string lookup(unsigned long inode, size_t room = 256) {
        std::string buf(room + 1, '#');
        length_ = proc_skinfo_lookup_at(dir_.path().c_str(), inode, buf.data(), room);
        EXPECT_EQ(buf[room], '#') << "wrote behind the buffer";
        return length_ == 0 ? (buf[0] == '#' ? "" : "touched") : std::string(buf.c_str());
    }

    temp_dir dir_;
    int length_ = 0;
};

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

}  // namespace

TEST_F(proc_skinfo_lookup_at_tree, ipv4_connection) {
    add("tcp", tcp_head + tcp_line("0100007F:0050", "0700000A:9D78", "01", "81234"));
    EXPECT_EQ(lookup(81234), "[127.0.0.1:80 -> 10.0.0.7:40312][TCP_ESTABLISHED]");
    EXPECT_EQ(length_, 49);
}

TEST_F(proc_skinfo_lookup_at_tree, listening_socket) {
    add("tcp", tcp_head + tcp_line("00000000:0050", "00000000:0000", "0A", "5"));
    EXPECT_EQ(lookup(5), "[0.0.0.0:80 -> 0.0.0.0:0][TCP_LISTEN]");
}

TEST_F(proc_skinfo_lookup_at_tree, every_state_has_its_name) {
    const std::vector<std::string> names = {
        "DESTROYED",      "TCP_ESTABLISHED", "TCP_SYN_SENT",  "TCP_SYN_RECV",
        "TCP_FIN_WAIT1",  "TCP_FIN_WAIT2",   "TCP_TIME_WAIT", "TCP_CLOSE",
        "TCP_CLOSE_WAIT", "TCP_LAST_ACK",    "TCP_LISTEN",    "TCP_CLOSING",
    };
    std::string text = tcp_head;
    for (size_t state = 0; state < 16; state++) {
        char number[8];
        snprintf(number, sizeof number, "%02zX", state);
        text += tcp_line("00000000:0001", "00000000:0002", number, std::to_string(1000 + state));
    }
    add("tcp", text);
    for (size_t state = 0; state < 16; state++) {
        std::string name = state < names.size() ? names[state] : "(null)";
        EXPECT_EQ(lookup(1000 + state), "[0.0.0.0:1 -> 0.0.0.0:2][" + name + "]");
    }
}

TEST_F(proc_skinfo_lookup_at_tree, mapped_ipv6_connection) {
    add("tcp6", tcp6_head + tcp_line("0000000000000000FFFF00000100007F:0050",
                                     "0000000000000000FFFF00000100007F:9D78", "01", "77"));
    EXPECT_EQ(lookup(77), "[0:0:0:0:0:ffff:7f00:1:80 -> 0:0:0:0:0:ffff:7f00:1:40312][TCP_ESTABLISHED]");
    EXPECT_EQ(length_, 74);
}

TEST_F(proc_skinfo_lookup_at_tree, ipv6_groups_are_not_shortened) {
    add("tcp6", tcp6_head + tcp_line("B80D01200A00000000000000010020FE:01BB",
                                     "00000000000000000000000000000000:0000", "0A", "78"));
    EXPECT_EQ(lookup(78), "[2001:db8:0:a:0:0:fe20:1:443 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
}

TEST_F(proc_skinfo_lookup_at_tree, unix_socket_with_a_path) {
    add("unix", unix_head + unix_line("  17", " /run/it") + unix_line("18", " @abstract") +
                    unix_line("19", " /with blank "));
    EXPECT_EQ(lookup(17), "[/run/it]");
    EXPECT_EQ(lookup(18), "[@abstract]");
    EXPECT_EQ(lookup(19), "[/with blank ]");
}

TEST_F(proc_skinfo_lookup_at_tree, unix_socket_without_a_path_is_nothing) {
    add("unix", unix_head + unix_line("17", "") + unix_line("18", " /other"));
    EXPECT_EQ(lookup(17), "");
}

TEST_F(proc_skinfo_lookup_at_tree, tables_are_searched_in_their_order) {
    add("tcp", tcp_line("00000000:0004", "00000000:0000", "0A", "9"));
    add("tcp6", tcp_line("00000000000000000000000000000000:0006", "00000000000000000000000000000000:0000",
                         "0A", "9") +
                    tcp_line("00000000000000000000000000000000:0007", "00000000000000000000000000000000:0000",
                             "0A", "10"));
    add("unix", unix_line("9", " /nine") + unix_line("10", " /ten") + unix_line("11", " /eleven"));
    EXPECT_EQ(lookup(9), "[0.0.0.0:4 -> 0.0.0.0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(10), "[0:0:0:0:0:0:0:0:7 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(11), "[/eleven]");
}

TEST_F(proc_skinfo_lookup_at_tree, missing_tables_are_passed_over) {
    EXPECT_EQ(lookup(1), "");
    add("unix", unix_line("1", " /one"));
    EXPECT_EQ(lookup(1), "[/one]");
}

TEST_F(proc_skinfo_lookup_at_tree, inode_must_be_the_same_number) {
    add("tcp", tcp_line("00000000:0004", "00000000:0000", "0A", "812345"));
    add("unix", unix_line("812345", " /x"));
    EXPECT_EQ(lookup(81234), "");
    EXPECT_EQ(lookup(12345), "");
}

TEST_F(proc_skinfo_lookup_at_tree, header_lines_are_lines_with_inode_zero) {
    add("tcp", tcp_head);
    EXPECT_EQ(lookup(0), "[0.0.0.0:0 -> 0.0.0.0:0][DESTROYED]");
}

TEST_F(proc_skinfo_lookup_at_tree, long_lines_count_as_several) {
    // The 256th byte begins a line of its own, which here is a whole one.
    std::string first = unix_line("20", " /" + std::string(300, 'a'));
    add("unix", first.substr(0, 255) + unix_line("21", " /hidden"));
    EXPECT_EQ(lookup(21), "[/hidden]");
    add("unix", first);
    EXPECT_EQ(lookup(20).size(), strlen("[/]") + 108);
}

TEST_F(proc_skinfo_lookup_at_tree, last_line_may_lack_its_newline) {
    std::string line = unix_line("22", " /last");
    line.pop_back();
    add("unix", line);
    EXPECT_EQ(lookup(22), "[/last]");
    add("unix", "0: 1 2 3 4 5 23");
    EXPECT_EQ(lookup(23), "");
}

TEST_F(proc_skinfo_lookup_at_tree, short_and_empty_lines_are_passed_over) {
    add("tcp", "\n\nshort\n" + tcp_line("00000000:0004", "00000000:0000", "0A", "30"));
    add("unix", "\n \n1 2 3\n" + unix_line("31", " /x"));
    EXPECT_EQ(lookup(30), "[0.0.0.0:4 -> 0.0.0.0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(31), "[/x]");
    EXPECT_EQ(lookup(0), "");
}

TEST_F(proc_skinfo_lookup_at_tree, text_is_cut_to_the_buffer_and_its_length_is_not) {
    add("tcp", tcp_line("0100007F:0050", "0700000A:9D78", "01", "1"));
    add("unix", unix_line("2", " /run/it"));
    EXPECT_EQ(lookup(1, 10), "[127.0.0.");
    EXPECT_EQ(length_, 49);
    EXPECT_EQ(lookup(2, 4), "[/r");
    EXPECT_EQ(length_, 9);
}

TEST_F(proc_skinfo_lookup_at_tree, finds_one_among_thousands) {
    std::string text = tcp_head;
    for (int i = 0; i < 5000; i++) {
        text += tcp_line("0100007F:0050", "0700000A:9D78", "01", std::to_string(100000 + i));
    }
    add("tcp", text);
    EXPECT_NE(lookup(100000), "");
    EXPECT_NE(lookup(104999), "");
    EXPECT_EQ(lookup(105000), "");
}

TEST(socket_parse_line, has_no_inode_where_the_line_is_too_short) {
    socket_row row;
    std::string line = tcp_line("00000000:0004", "00000000:0000", "0A", "5");
    EXPECT_TRUE(socket_parse_line(table::tcp4, line.substr(0, 92), &row));
    EXPECT_FALSE(socket_parse_line(table::tcp4, line.substr(0, 91), &row));
    EXPECT_FALSE(socket_parse_line(table::tcp4, "", &row));
    EXPECT_FALSE(socket_parse_line(table::unix_domain, "1 2 3 4 5 6 ", &row));
    unsigned long inode = 7;
    EXPECT_FALSE(socket_parse_inode(table::tcp6, line.substr(0, 100), &inode));
    EXPECT_TRUE(socket_parse_inode(table::unix_domain, "1 2 3 4 5 6 70x", &inode));
    EXPECT_EQ(inode, 70u);
}

// Real sockets: with a cache the text is the same as without.

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
    // Asks again when the connection changes its state meanwhile.
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
    // A connection to `listener`; both ends are kept.
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
    // So many that asking the kernel is worth while.
    void connect_many(int listener) {
        for (int i = 0; i < 20; i++) {
            connect_to(listener);
        }
    }

    unique_socket_cache cache_ = socket_cache_new();
    std::vector<unique_fd> sockets_;
};

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

TEST_F(socket_cache_lookup_of_real_sockets, sockets_are_found_also_without_memory_for_their_list) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    unique_fd listener = listening(AF_INET);
    connect_many(listener.get());
    unique_fd in_no_table(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(cached(in_no_table.get()), "");  // a long table was read for it: now the kernel is asked
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

TEST_F(socket_cache_lookup_of_real_sockets, socket_that_connects_or_changes_its_state_later) {
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

TEST_F(socket_cache_lookup_of_real_sockets, listeners_that_share_a_port_or_have_a_device) {
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

TEST_F(socket_cache_lookup_of_real_sockets, unix_sockets_by_what_they_are_bound_to) {
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
