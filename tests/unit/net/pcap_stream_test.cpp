#include "net/pcap_stream.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>

#include "common/safe_io.h"
#include "tests/unit/net/captured_stream.h"
#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

std::string bare_capture(const char* interface, int seconds, int max_bytes) {
    captured_stream stream = capture_in_private_world([&](int fd) {
        std::set<int> before = open_fds();
        int result = stream_pcap(fd, seconds, max_bytes, interface);
        return result == 0 && open_fds() != before ? 9 : result;
    });
    EXPECT_EQ(stream.exit_code, 0);
    EXPECT_TRUE(is_capture(stream.bytes));
    return stream.bytes;
}

// Sends over the loopback of this thread's network, with a socket that receives it.
void send_datagram(const std::string& text) {
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

constexpr unsigned download_bytes = 200000;

// Downloads a capture of the download's own network, in which a datagram is sent meanwhile. `stream` gets the
// server's end of the connection.
template <typename Stream>
pcap_content download(Stream stream) {
    EXPECT_TRUE(run_command("ip link set lo up"));
    tcp_connection connection;
    reader_thread reader(std::move(connection.browser));
    std::thread capture([&] {
        EXPECT_EQ(stream(connection.server.get()), 0);
        connection.server.reset();
    });
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    send_datagram("a datagram");
    capture.join();
    EXPECT_EQ(reader.text().size(), download_bytes);
    return pcap_read(reader.text());
}

// The IP protocols of the frames.
std::set<int> protocols_of(const pcap_content& content) {
    std::set<int> found;
    for (const pcap_record& frame : content.frames()) {
        found.insert(frame.data.at(23));
    }
    return found;
}

// Captures into a pipe that is copied to the browser, as an archive is compressed. Returns 0 on success.
int capture_through_pipe(int browser_fd, int excluded_fd) {
    test_pipe pipe;
    std::thread copier([&] { EXPECT_EQ(safe_copyfd(pipe.out.get(), browser_fd), download_bytes); });
    int32_t written = pcap_dump_excluding(pipe.in.get(), "lo", 1, download_bytes, excluded_fd);
    pipe.in.reset();
    copier.join();
    return written == int32_t{download_bytes} ? 0 : 1;
}

}  // namespace

NETWORK_TEST(stream_pcap, excludes_its_own_connection) {
    pcap_content content = download([](int fd) { return stream_pcap(fd, 1, download_bytes, "lo"); });
    EXPECT_EQ(protocols_of(content), std::set<int>{IPPROTO_UDP});
    ASSERT_EQ(content.frames().size(), 2u);  // sent, and received
    EXPECT_EQ(content.frames()[0].data.size(), pcap_stream_snaplen);
    EXPECT_EQ(content.frames()[0].data.substr(42, 10), "a datagram");
    EXPECT_EQ(content.frames()[0].orig_len, 52u);
}

NETWORK_TEST(pcap_dump_excluding, excludes_the_named_connection) {
    auto excluding_the_browser = [](int fd) { return capture_through_pipe(fd, fd); };
    auto excluding_nothing = [](int fd) { return capture_through_pipe(fd, -1); };
    EXPECT_EQ(protocols_of(download(excluding_the_browser)), std::set<int>{IPPROTO_UDP});
    EXPECT_EQ(protocols_of(download(excluding_nothing)), (std::set<int>{IPPROTO_TCP, IPPROTO_UDP}));
}

NETWORK_TEST(pcap_dump_excluding, short_capture_shares_little_memory) {
    constexpr unsigned size = 512000;
    test_pipe output;
    std::thread capture([&output] {
        EXPECT_EQ(pcap_dump_excluding(output.in.get(), "any", 1, size, output.in.get()), int32_t{size});
        output.in.reset();
    });
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    EXPECT_LE(mapped_ring_bytes(), 2u << 20);
    EXPECT_EQ(read_all(output.out.get()).size(), size);
    capture.join();
}

NETWORK_TEST(pcap_dump_excluding, does_not_change_the_names) {
    char names[] = "lo,any";
    test_pipe output;
    EXPECT_EQ(pcap_dump_excluding(output.in.get(), names, 1, 3000, output.in.get()), 3000);
    EXPECT_STREQ(names, "lo,any");
}

TEST(stream_pcap, size_is_exact) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (int size : {24, 25, 39, 40, 100, 100003}) {
        EXPECT_EQ(bare_capture("lo", 1, size).size(), static_cast<size_t>(size));
    }
}

TEST(stream_pcap, size_below_the_file_header_gives_that_header) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 1, 1), pcap_expected_file_header());
    EXPECT_EQ(bare_capture("lo", 1, 23), pcap_expected_file_header());
}

TEST(stream_pcap, size_below_1_means_5120000_bytes) {
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
    EXPECT_EQ(capture_into_broken_pipe([](int fd) { return stream_pcap(fd, 1, 0, nullptr); }), 1);
}
