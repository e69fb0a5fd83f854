// Answers of a routing socket, and a kernel that gives them.
#pragma once

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <string>

#include "tests/unit/support/pipes.h"

template <typename T>
std::string netlink_bytes(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// A message: header, then `body`.
inline std::string netlink_message(uint16_t type, const std::string& body) {
    nlmsghdr head = {};
    head.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(body.size()));
    head.nlmsg_type = type;
    return netlink_bytes(head) + body + std::string(NLMSG_ALIGN(body.size()) - body.size(), '\0');
}

inline std::string netlink_attribute(unsigned short type, const std::string& value) {
    rtattr head = {static_cast<unsigned short>(RTA_LENGTH(value.size())), type};
    return netlink_bytes(head) + value + std::string(RTA_ALIGN(value.size()) - value.size(), '\0');
}

// The end of a list, with a negative errno.
inline std::string netlink_end(int result = 0) {
    return netlink_message(NLMSG_DONE, netlink_bytes(result));
}

// One end serves as the routing socket; answers are queued at the other one before the request.
class fake_kernel {
public:
    int fd() const { return ends_.a.get(); }
    void answer(const std::string& piece) {
        EXPECT_EQ(send(ends_.b.get(), piece.data(), piece.size(), 0), static_cast<ssize_t>(piece.size()));
    }
    // The request that it was sent.
    std::string request() {
        char bytes[256];
        const ssize_t got = recv(ends_.b.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        EXPECT_GT(got, 0);
        return {bytes, got > 0 ? static_cast<size_t>(got) : 0};
    }
    void go_away() { ends_.b.reset(); }

private:
    test_socketpair ends_{SOCK_SEQPACKET};
};
