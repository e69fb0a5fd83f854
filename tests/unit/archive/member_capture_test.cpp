#include "archive/member_capture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

// What `work` writes into the pipe that it gets, in a world whose only interface is its own loopback. A pipe
// and no file: the capture watches its output for a reader that goes.
template <typename Work>
std::string captured(Work work, int* exit_code) {
    test_pipe output;
    pid_t pid = start_in_private_world([&] {
        ignore_broken_pipes();
        output.out.reset();
        return work(output.in.get());
    });
    output.in.reset();
    std::string bytes = read_all(output.out.get());
    int status = wait_status(pid);
    *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return bytes;
}

// A capture stream is a pcap stream, or nothing but the filler when no interface could be opened.
bool is_capture(const std::string& bytes) {
    uint32_t magic = 0;
    memcpy(&magic, bytes.data(), std::min(bytes.size(), sizeof magic));
    return magic == 0xa1b2c3d4 || bytes == std::string(bytes.size(), '\0');
}

std::string bare_capture(const char* interface, int seconds, int max_bytes) {
    int exit_code = -1;
    std::string bytes = captured(
        [&](int fd) {
            std::set<int> before = open_fds();
            int result = stream_pcap(fd, seconds, max_bytes, interface);
            return result == 0 && open_fds() != before ? 9 : result;
        },
        &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_TRUE(is_capture(bytes));
    return bytes;
}

void send_datagram(const std::string& text) {
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(sock.get(), any, sizeof address), 0);  // there is someone who takes it
    EXPECT_EQ(sendto(sock.get(), text.data(), text.size(), 0, any, sizeof address),
              static_cast<ssize_t>(text.size()));
}

constexpr unsigned browser_bytes = 200000;

// A browser's download of a capture of its own network, in which a datagram is sent meanwhile. `stream` gets
// the browser's connection.
template <typename Stream>
pcap_content download(Stream stream) {
    EXPECT_TRUE(run_command("ip link set lo up"));
    tcp_connection connection;
    std::string bytes;
    std::thread reader([&] { bytes = read_all(connection.browser.get()); });
    std::thread capture([&] {
        EXPECT_EQ(stream(connection.server.get()), 0);
        connection.server.reset();
    });
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    send_datagram("a datagram");
    capture.join();
    reader.join();
    EXPECT_EQ(bytes.size(), browser_bytes);
    return pcap_read(bytes);
}

// The IP protocols of the frames.
std::set<int> protocols_of(const pcap_content& content) {
    std::set<int> found;
    for (const pcap_record& frame : content.frames()) {
        found.insert(frame.data.at(23));
    }
    return found;
}

// Captures into a pipe whose content goes to the browser, as an archive is compressed.
int stream_through_pipe(int browser_fd, int filter_fd) {
    test_pipe pipe;
    std::thread copier([&] { EXPECT_EQ(safe_copyfd(pipe.out.get(), browser_fd), browser_bytes); });
    int result = stream_pcap_dump(nullptr, pipe.in.get(), "lo", 1, browser_bytes, filter_fd);
    pipe.in.reset();
    copier.join();
    return result;
}

}  // namespace

NETWORK_TEST(stream_pcap_dump, browsers_own_connection_is_not_captured) {
    pcap_content content = download([](int fd) { return stream_pcap(fd, 1, browser_bytes, "lo"); });
    EXPECT_EQ(protocols_of(content), std::set<int>{IPPROTO_UDP});
    ASSERT_EQ(content.frames().size(), 2u);  // sent, and received
    EXPECT_EQ(content.frames()[0].data.size(), 1536u);
    EXPECT_EQ(content.frames()[0].data.substr(42, 10), "a datagram");
    EXPECT_EQ(content.frames()[0].orig_len, 52u);
}

NETWORK_TEST(stream_pcap_dump, connection_behind_a_pipe_is_not_captured_when_it_is_named) {
    auto named = [](int fd) { return stream_through_pipe(fd, fd); };
    auto unnamed = [](int fd) { return stream_through_pipe(fd, -1); };
    EXPECT_EQ(protocols_of(download(named)), std::set<int>{IPPROTO_UDP});
    EXPECT_EQ(protocols_of(download(unnamed)), (std::set<int>{IPPROTO_TCP, IPPROTO_UDP}));
}

NETWORK_TEST(stream_pcap_dump, capture_of_an_archive_shares_little_memory) {
    test_pipe output;
    std::thread capture([&output] {
        EXPECT_EQ(stream_pcap_dump(nullptr, output.in.get(), "any", 1, 512000), 0);
        output.in.reset();
    });
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    EXPECT_LE(mapped_ring_bytes(), 2u << 20);
    EXPECT_EQ(read_all(output.out.get()).size(), 512000u);
    capture.join();
}

TEST(stream_pcap_dump, member_has_exactly_the_promised_size) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (unsigned size : {512000u, 5001u}) {
        int exit_code = -1;
        std::string bytes = captured(
            [size](int fd) {
                tar_handle* t = tar_new(fd, "top/");
                int result = stream_pcap_dump(t, fd, "any", 1, size);
                tar_close(t);
                return result;
            },
            &exit_code);
        EXPECT_EQ(exit_code, 0);
        tar_listing listing = tar_read(bytes);
        EXPECT_EQ(listing.trouble, "");
        ASSERT_EQ(listing.names(), std::vector<std::string>{"top/netdump.cap"});
        EXPECT_EQ(listing.entries[0].size, size);
        EXPECT_TRUE(is_capture(listing.entries[0].data));
    }
}

TEST(stream_pcap_dump, without_a_handle_there_is_the_bare_stream) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    std::string bytes =
        captured([](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 4999); }, &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(bytes.size(), 4999u);
    EXPECT_TRUE(is_capture(bytes));
}

TEST(stream_pcap_dump, connection_to_leave_out_need_not_be_a_connection) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    std::string bytes = captured(
        [](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 3000, STDIN_FILENO); }, &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(bytes.size(), 3000u);
}

TEST(stream_pcap_dump, broken_output_gives_1) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (bool in_archive : {true, false}) {
        EXPECT_EQ(run_in_private_world([in_archive] {
                      ignore_broken_pipes();
                      test_pipe broken;
                      broken.out.reset();
                      tar_handle* t = in_archive ? tar_new(broken.in.get(), nullptr) : nullptr;
                      return stream_pcap_dump(t, broken.in.get(), "any", 1, 512000);
                  }),
                  1);
    }
}

TEST(stream_pcap_dump, names_of_the_caller_are_not_changed) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    (void)captured(
        [](int fd) {
            char names[] = "lo,any";
            int result = stream_pcap_dump(nullptr, fd, names, 1, 3000);
            return result == 0 && strcmp(names, "lo,any") == 0 ? 0 : 4;
        },
        &exit_code);
    EXPECT_EQ(exit_code, 0);
}

TEST(stream_pcap, limit_is_exact) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (int size : {24, 25, 39, 40, 100, 100003}) {
        EXPECT_EQ(bare_capture("lo", 1, size).size(), static_cast<size_t>(size));
    }
}

TEST(stream_pcap, limit_below_the_file_header_gives_that_header) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 1, 1), pcap_expected_file_header());
    EXPECT_EQ(bare_capture("lo", 1, 23), pcap_expected_file_header());
}

TEST(stream_pcap, limit_below_1_means_5120000_bytes) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 1, 0).size(), 5120000u);
    EXPECT_EQ(bare_capture("lo", 1, -1).size(), 5120000u);
    EXPECT_EQ(bare_capture("lo", 1, -2000000000).size(), 5120000u);
}

TEST(stream_pcap, interface_may_be_null_or_empty) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture(nullptr, 1, 3000).size(), 3000u);
    EXPECT_EQ(bare_capture("", 1, 3000).size(), 3000u);
}

TEST(stream_pcap, time_below_1_is_bounded) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 0, 3000).size(), 3000u);
    EXPECT_EQ(bare_capture("lo", -7, 3000).size(), 3000u);
}

TEST(stream_pcap, broken_output_gives_1) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(run_in_private_world([] {
                  ignore_broken_pipes();
                  test_pipe broken;
                  broken.out.reset();
                  return stream_pcap(broken.in.get(), 1, 0, nullptr);
              }),
              1);
}
