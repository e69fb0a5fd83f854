#include "common/unix_address.h"

#include <gtest/gtest.h>

#include <string>

#include "common/unique_fd.h"
#include "tests/unit/support/temp_dir.h"

namespace {

std::string path_of(const unix_address& address) {
    const auto* raw = reinterpret_cast<const sockaddr_un*>(address.get());
    return std::string(raw->sun_path, strnlen(raw->sun_path, sizeof raw->sun_path));
}

unique_fd unix_socket() {
    return unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

}  // namespace

TEST(unix_address, connects_to_the_socket_at_its_path) {
    const temp_dir folder;
    const unix_address address(folder.path("socket"));
    EXPECT_TRUE(address.has_whole_path());
    const unique_fd server = unix_socket();
    ASSERT_EQ(bind(server.get(), address.get(), address.size()), 0) << strerror(errno);
    ASSERT_EQ(listen(server.get(), 1), 0);
    EXPECT_EQ(connect(unix_socket().get(), address.get(), address.size()), 0) << strerror(errno);
}

TEST(unix_address, needs_a_byte_for_the_nul_to_have_the_whole_path) {
    const std::string path(unix_address::capacity - 1, 'p');
    EXPECT_TRUE(unix_address(path).has_whole_path());
    EXPECT_EQ(path_of(unix_address(path)), path);
    EXPECT_FALSE(unix_address(path + "p").has_whole_path());
    EXPECT_EQ(path_of(unix_address(path + "p")), path + "p");
}

TEST(unix_address, cuts_a_path_that_is_too_long) {
    const unix_address address(std::string(1000, 'p'));
    EXPECT_FALSE(address.has_whole_path());
    EXPECT_EQ(path_of(address), std::string(unix_address::capacity, 'p'));
}
