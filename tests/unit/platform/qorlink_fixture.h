// Shared by the tests of descriptor passing: a listening socket in a folder of its own, and a peer that can
// be made to misbehave.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "common/unix_address.h"
#include "platform/qorlink.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A peer may hold the receiver for this long. A busy machine may delay our return by `slack`.
inline constexpr milliseconds recv_limit{2000};
inline constexpr milliseconds send_limit{10000};
inline constexpr milliseconds slack{800};

inline milliseconds since(steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// A pipe whose writing side the tests pass as a descriptor.
struct passed_pipe : test_pipe {
    passed_pipe() : test_pipe(0) {}
    // True once no process has the writing side any more.
    bool is_at_end() {
        in.reset();
        pollfd waiting = {out.get(), POLLIN, 0};
        char byte;
        return poll(&waiting, 1, 2000) == 1 && read(out.get(), &byte, 1) == 0;
    }
};

// The peer of one connection. It does not use the library, so that it can misbehave.
class peer {
public:
    explicit peer(const std::string& path) : sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const unix_address address(path);
        EXPECT_EQ(connect(sock, address.get(), address.size()), 0) << strerror(errno);
    }
    peer(const peer&) = delete;
    ~peer() { hang_up(); }

    bool send(const std::string& bytes, const std::vector<int>& descriptors = {}) {
        iovec part = {const_cast<char*>(bytes.data()), bytes.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
        if (!descriptors.empty()) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
            memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size() * sizeof(int));
        }
        return sendmsg(sock, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    void finish() { EXPECT_EQ(shutdown(sock, SHUT_WR), 0); }
    void hang_up() {
        if (sock >= 0) {
            close(sock);
        }
        sock = -1;
    }
    // True if the receiver closes its side within `limit_ms`.
    bool sees_end(int limit_ms) const {
        pollfd waiting = {sock, POLLRDHUP, 0};
        return poll(&waiting, 1, limit_ms) == 1;
    }

private:
    int sock;
};

class qorlink_fixture : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/qorlinkXXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        path = folder + "/control";
        server = qorlink_server_socket(path.c_str(), 0600);
        ASSERT_GE(server, 0) << strerror(errno);
    }
    void TearDown() override {
        close(server);
        unlink(path.c_str());
        EXPECT_EQ(rmdir(folder.c_str()), 0) << "files were left in " << folder;
    }

    // Receives a message, and stores its bytes, the descriptor, errno and the time taken.
    int receive(size_t room) {
        buffer.assign(room, '#');
        errno = 0;
        auto start = steady_clock::now();
        int result = qorlink_recv(server, buffer.data(), static_cast<int>(room), &received);
        error = errno;
        took = since(start);
        return result;
    }
    std::string text(int length) const { return buffer.substr(0, static_cast<size_t>(length)); }

    // Expects a receive that fails with `wanted_error`, returns no descriptor and leaves none open.
    void expect_failure(int wanted_error, size_t room = 4095) {
        std::set<int> before = open_fds();
        EXPECT_LT(receive(room), 1);
        EXPECT_EQ(error, wanted_error) << strerror(error);
        EXPECT_EQ(received, -1);
        EXPECT_EQ(open_fds(), before);
    }
    void expect_bounded() const {
        EXPECT_GE(took, recv_limit - milliseconds(50));
        EXPECT_LE(took, recv_limit + slack);
    }

    std::string folder;
    std::string path;
    int server = -1;
    std::string buffer;
    int received = 12345;
    int error = 0;
    milliseconds took{0};
};
