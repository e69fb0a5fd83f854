#include "proc/socket_diag.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <string>
#include <vector>

namespace {

constexpr unsigned long inode = 4711;

template <typename T>
std::string bytes_of(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// A netlink message: header, then `body`.
std::string message(uint16_t type, const std::string& body) {
    nlmsghdr head = {};
    head.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(body.size()));
    head.nlmsg_type = type;
    return bytes_of(head) + body + std::string(NLMSG_ALIGN(body.size()) - body.size(), '\0');
}

std::string attribute(unsigned short type, const std::string& value) {
    rtattr head = {static_cast<unsigned short>(RTA_LENGTH(value.size())), type};
    return bytes_of(head) + value + std::string(RTA_ALIGN(value.size()) - value.size(), '\0');
}

std::string tcp_answer(uint32_t number, uint8_t state = TCP_LISTEN) {
    inet_diag_msg answer = {};
    answer.idiag_family = AF_INET;
    answer.idiag_state = state;
    answer.idiag_inode = number;
    answer.id.idiag_sport = htons(80);
    answer.id.idiag_dport = htons(40312);
    answer.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
    return message(SOCK_DIAG_BY_FAMILY, bytes_of(answer));
}

std::string unix_answer(uint32_t number, const std::string& attributes) {
    unix_diag_msg answer = {};
    answer.udiag_family = AF_UNIX;
    answer.udiag_ino = number;
    return message(SOCK_DIAG_BY_FAMILY, bytes_of(answer) + attributes);
}

// A socket pair: one end serves as the netlink socket, the test queues its answer at the other one before the
// request.
class socket_diag_answer : public testing::Test {
protected:
    socket_diag_answer() {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
        diag_.reset(ends[0]);
        kernel_.reset(ends[1]);
    }
    void answer(const std::string& text) {
        EXPECT_EQ(send(kernel_.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    bool refresh_tcp(const std::string& text) {
        answer(text);
        row_.inode = inode;
        return socket_diag_refresh_tcp(diag_.get(), &row_);
    }
    // The path after an answer with these attributes; "-" for none, "!" if the socket was not found.
    std::string path(const std::string& attributes) {
        answer(unix_answer(inode, attributes));
        row_ = {.from = socket_row::table::unix_domain, .inode = inode};
        bool found = socket_diag_refresh_unix(diag_.get(), &row_);
        return !found ? "!" : row_.has_path ? row_.path : "-";
    }
    // The inodes that are listed; the last one is -1 if the list is incomplete.
    std::vector<long> list() {
        std::vector<long> inodes;
        auto add = [](void* context, const socket_row& row) {
            static_cast<std::vector<long>*>(context)->push_back(static_cast<long>(row.inode));
        };
        if (!socket_diag_list_tcp(diag_.get(), socket_row::table::tcp4, add, &inodes)) {
            inodes.push_back(-1);
        }
        return inodes;
    }

    unique_fd diag_;
    unique_fd kernel_;
    socket_row row_;
};

using inodes = std::vector<long>;
using socket_diag_refresh_tcp_answer = socket_diag_answer;
using socket_diag_refresh_unix_answer = socket_diag_answer;
using socket_diag_list_tcp_answer = socket_diag_answer;

unsigned long inode_of(const unique_fd& fd) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd.get(), &status), 0);
    return static_cast<unsigned long>(status.st_ino);
}

}  // namespace

TEST(socket_diag, finds_a_listening_socket_of_this_machine) {
    unique_fd diag = socket_diag_open();
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(listener.get(), 1), 0);
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    socket_row row;
    row.inode = inode_of(listener);
    row.local_port = ntohs(address.sin_port);
    if (!diag || !socket_diag_refresh_tcp(diag.get(), &row)) {
        GTEST_SKIP() << "this kernel has no socket diagnosis";
    }
    EXPECT_EQ(row.state, TCP_LISTEN);
    row.inode++;
    row.state = 99;
    EXPECT_FALSE(socket_diag_refresh_tcp(diag.get(), &row));
    EXPECT_EQ(row.state, 99);
}

TEST_F(socket_diag_refresh_tcp_answer, updates_the_state) {
    EXPECT_TRUE(refresh_tcp(tcp_answer(inode, TCP_CLOSE_WAIT)));
    EXPECT_EQ(row_.state, TCP_CLOSE_WAIT);
}

TEST_F(socket_diag_refresh_tcp_answer, of_another_socket_is_ignored) {
    row_.state = 99;
    EXPECT_FALSE(refresh_tcp(tcp_answer(inode + 1)));
    row_.from = socket_row::table::tcp6;
    EXPECT_FALSE(refresh_tcp(tcp_answer(inode)));
    EXPECT_EQ(row_.state, 99);
}

TEST_F(socket_diag_refresh_tcp_answer, that_is_malformed_is_ignored) {
    const std::string good = tcp_answer(inode);
    for (size_t size = 1; size < good.size(); size++) {
        EXPECT_FALSE(refresh_tcp(good.substr(0, size))) << size;
    }
    std::string error = good;
    error[4] = NLMSG_ERROR;
    EXPECT_FALSE(refresh_tcp(error));
    std::string too_short = good;
    too_short[0] = static_cast<char>(NLMSG_LENGTH(sizeof(inet_diag_msg) - 1));
    EXPECT_FALSE(refresh_tcp(too_short));
    EXPECT_TRUE(refresh_tcp(good));
}

TEST_F(socket_diag_refresh_tcp_answer, may_be_missing) {
    row_.inode = inode;
    EXPECT_FALSE(socket_diag_refresh_tcp(diag_.get(), &row_));
    EXPECT_FALSE(socket_diag_refresh_tcp(-1, &row_));
}

TEST_F(socket_diag_refresh_unix_answer, has_the_path_as_the_table_lists_it) {
    EXPECT_EQ(path(attribute(UNIX_DIAG_NAME, std::string("/run/name\0", 10))), "/run/name");
    EXPECT_EQ(path(attribute(UNIX_DIAG_NAME, std::string("\0abs\0tract", 10))), "@abs@tract");
    EXPECT_EQ(path(attribute(UNIX_DIAG_NAME, std::string("two\nlines\0", 10))), "two");
    EXPECT_EQ(path(attribute(UNIX_DIAG_NAME, "/" + std::string(200, 'x'))), "/" + std::string(108, 'x'));
}

TEST_F(socket_diag_refresh_unix_answer, may_have_other_attributes) {
    std::string other = attribute(UNIX_DIAG_PEER, "abc");
    EXPECT_EQ(path(""), "-");
    EXPECT_EQ(path(other), "-");
    EXPECT_EQ(path(other + attribute(UNIX_DIAG_NAME, std::string("/run/name\0", 10)) + other), "/run/name");
}

TEST_F(socket_diag_refresh_unix_answer, ends_at_a_malformed_attribute) {
    std::string name = attribute(UNIX_DIAG_NAME, std::string("/run/name\0", 10));
    EXPECT_EQ(path(bytes_of(rtattr{0, UNIX_DIAG_PEER}) + name), "-");
    EXPECT_EQ(path(bytes_of(rtattr{200, UNIX_DIAG_NAME}) + name), "-");
    EXPECT_EQ(path(name.substr(0, 2)), "-");
}

TEST_F(socket_diag_refresh_unix_answer, of_another_socket_is_ignored) {
    answer(unix_answer(inode + 1, attribute(UNIX_DIAG_NAME, "/other")));
    row_ = {.from = socket_row::table::unix_domain, .inode = inode};
    EXPECT_FALSE(socket_diag_refresh_unix(diag_.get(), &row_));
    EXPECT_FALSE(row_.has_path);
}

TEST_F(socket_diag_list_tcp_answer, comes_in_pieces_and_skips_sockets_without_an_inode) {
    answer(tcp_answer(1) + tcp_answer(0) + tcp_answer(2));
    answer(tcp_answer(3));
    answer(message(NLMSG_DONE, std::string(4, '\0')));
    EXPECT_EQ(list(), (inodes{1, 2, 3}));
}

TEST_F(socket_diag_list_tcp_answer, has_the_endpoints_of_each_socket) {
    answer(tcp_answer(inode, TCP_ESTABLISHED) + message(NLMSG_DONE, std::string(4, '\0')));
    auto keep = [](void* context, const socket_row& row) { *static_cast<socket_row*>(context) = row; };
    EXPECT_TRUE(socket_diag_list_tcp(diag_.get(), socket_row::table::tcp4, keep, &row_));
    EXPECT_EQ(row_.from, socket_row::table::tcp4);
    EXPECT_EQ(row_.inode, inode);
    EXPECT_EQ(row_.state, TCP_ESTABLISHED);
    EXPECT_EQ(row_.local_port, 80);
    EXPECT_EQ(row_.remote_port, 40312);
    EXPECT_EQ(row_.local[0], htonl(INADDR_LOOPBACK));
    EXPECT_EQ(row_.remote[0], 0u);
}

TEST_F(socket_diag_list_tcp_answer, without_an_end_is_incomplete) {
    answer(tcp_answer(1));
    EXPECT_EQ(list(), (inodes{1, -1}));
}

TEST_F(socket_diag_list_tcp_answer, that_is_malformed_is_incomplete) {
    answer(tcp_answer(1) + message(NLMSG_ERROR, std::string(4, '\0')));
    EXPECT_EQ(list(), (inodes{1, -1}));
    answer(tcp_answer(1) + tcp_answer(2).substr(0, 40));
    EXPECT_EQ(list(), (inodes{1, -1}));
    answer(message(SOCK_DIAG_BY_FAMILY, std::string(8, '\0')));
    EXPECT_EQ(list(), (inodes{-1}));
}
