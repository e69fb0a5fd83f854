#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/unit/support/pipes.h"
#include "tools/webfront/listener.h"

namespace {

sockaddr_in address_of(const unique_fd& socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    return address;
}

}  // namespace

TEST(webfront_listen, stores_the_port_that_the_kernel_chose) {
    uint16_t port = 0;
    unique_fd listener = webfront_listen(false, &port);
    ASSERT_TRUE(listener);
    EXPECT_NE(port, 0);
    EXPECT_EQ(ntohs(address_of(listener).sin_port), port);
}

TEST(webfront_listen, listens_on_the_loopback_address_or_on_all) {
    uint16_t port = 0, other_port = 0;
    EXPECT_EQ(address_of(webfront_listen(false, &port)).sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(address_of(webfront_listen(true, &other_port)).sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(webfront_listen, never_blocks_in_accept_and_closes_on_exec) {
    uint16_t port = 0;
    unique_fd listener = webfront_listen(false, &port);
    EXPECT_TRUE(is_cloexec(listener.get()));
    EXPECT_EQ(accept(listener.get(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(webfront_listen, fails_with_the_kernels_reason_on_a_port_in_use) {
    uint16_t port = 0;
    unique_fd first = webfront_listen(false, &port);
    ASSERT_TRUE(first);
    uint16_t same = port;
    EXPECT_FALSE(webfront_listen(false, &same));
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(same, port);
}
