#include "net/pcap_stream.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
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

constexpr unsigned download_bytes = 200000;

// Downloads a capture of the download's own network, in which a datagram is sent meanwhile. `stream` gets the
// server's end of the connection; `size` bytes are expected from it.
template <typename Stream>
pcap_content download(Stream stream, size_t size = download_bytes) {
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
    EXPECT_EQ(reader.text().size(), size);
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
    int32_t written =
        pcap_dump_excluding(pipe.in.get(), "lo", excluded_fd, {.max_total = download_bytes, .duration = 1});
    pipe.in.reset();
    copier.join();
    return written == int32_t{download_bytes} ? 0 : 1;
}

// The memory that a capture of the size of an archive's shares with the kernel.
size_t ring_bytes_of_short_capture(unsigned snaplen) {
    constexpr unsigned size = 512000;
    test_pipe output;
    std::thread capture([&] {
        const int fd = output.in.get();
        EXPECT_EQ(pcap_dump_excluding(fd, "any", fd, {.max_total = size, .snaplen = snaplen, .duration = 1}),
                  int32_t{size});
        output.in.reset();
    });
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
    const size_t shared = mapped_ring_bytes();
    EXPECT_EQ(read_all(output.out.get()).size(), size);
    capture.join();
    return shared;
}

// An exact capture of near0 on its own thread. It has begun, and its file header has been read.
struct exact_download {
    test_socketpair browser;
    int result = -1;
    std::thread capture;

    exact_download(int seconds, int max_bytes) {
        signal(SIGPIPE, SIG_IGN);
        capture = std::thread([this, seconds, max_bytes] {
            result = stream_pcap(browser.a.get(), seconds, max_bytes, "near0", true);
            browser.a.reset();
        });
        EXPECT_EQ(receive(24), pcap_expected_file_header());
    }
    exact_download(const exact_download&) = delete;
    exact_download& operator=(const exact_download&) = delete;
    ~exact_download() { wait(); }

    std::string receive(size_t count) const {
        std::string got(count, '\0');
        EXPECT_EQ(recv(browser.b.get(), got.data(), count, MSG_WAITALL), static_cast<ssize_t>(count));
        return got;
    }
    // The content of the rest of the download, which ends by itself.
    pcap_content rest() const { return pcap_read(pcap_expected_file_header() + read_all(browser.b.get())); }
    int wait() {
        if (!capture.joinable()) {
            return result;
        }
        if (!eventually([] { return capturing_sockets() == 0; })) {
            ADD_FAILURE() << "the capture did not end without a frame";
            frame_sender("far0").send(frame_of(60, 'h'));
        }
        capture.join();
        return result;
    }
};

constexpr int long_time = 1000000;

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
    EXPECT_LE(ring_bytes_of_short_capture(pcap_stream_snaplen), 2u << 20);
    EXPECT_LE(ring_bytes_of_short_capture(0), 4u << 20);
}

NETWORK_TEST(pcap_dump_excluding, does_not_change_the_names) {
    char names[] = "lo,any";
    test_pipe output;
    EXPECT_EQ(pcap_dump_excluding(output.in.get(), names, -1, {.max_total = 3000, .duration = 1}), 3000);
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

NETWORK_TEST(exact_stream_pcap, excludes_its_own_connection_and_has_true_lengths) {
    constexpr size_t size = 24 + 2 * (16 + 52);  // sent, and received
    pcap_content content = download([](int fd) { return stream_pcap(fd, 1, 0, "lo", true); }, size);
    EXPECT_EQ(protocols_of(content), std::set<int>{IPPROTO_UDP});
    ASSERT_EQ(content.records.size(), 2u);
    EXPECT_EQ(content.records[1].data.substr(42), "a datagram");
    EXPECT_EQ(content.records[1].orig_len, 52u);
}

CAPTURE_TEST(exact_stream_pcap, long_frame_is_cut_but_its_length_is_not) {
    ASSERT_TRUE(allow_long_frames());
    // Two frames of 1536 bytes fit exactly.
    for (int max_bytes : {24 + 2 * (16 + 1536), 24 + 2 * (16 + 1536) + 1}) {
        exact_download download(0, max_bytes);
        frame_sender wire("far0");
        for (size_t size : {9000u, 1537u, 60u}) {
            wire.send(frame_of(size, 'l'));
        }
        pcap_content content = download.rest();
        EXPECT_EQ(content.rest, "");
        ASSERT_EQ(content.records.size(), 2u);
        EXPECT_EQ(content.frame_bytes(), (std::vector<std::string>(2, frame_of(1536, 'l'))));
        EXPECT_EQ(content.records[0].orig_len, 9000u);
        EXPECT_EQ(content.records[1].orig_len, 1537u);
        EXPECT_EQ(download.wait(), 0);
    }
}

CAPTURE_TEST(exact_stream_pcap, frame_that_does_not_fit_ends_it_without_padding) {
    exact_download download(2, 24 + 2 * (16 + 60) - 1);
    frame_sender wire("far0");
    wire.send(frame_of(60, 'a'));
    wire.send(frame_of(60, 'b'));
    pcap_content content = download.rest();
    EXPECT_EQ(content.rest, "");
    EXPECT_EQ(content.frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
    EXPECT_EQ(content.records.size(), 1u);
    EXPECT_EQ(download.wait(), 0);
}

NETWORK_TEST(exact_stream_pcap, ends_without_padding_when_the_time_is_over) {
    for (int max_bytes : {0, -5, 1000000}) {
        exact_download download(1, max_bytes);
        EXPECT_EQ(download.rest().records.size(), 0u);
        EXPECT_EQ(download.wait(), 0);
    }
}

NETWORK_TEST(exact_stream_pcap, without_limits_it_ends_when_the_browser_closes) {
    for (int no_limit : {0, -7}) {
        exact_download download(no_limit, no_limit);
        frame_sender("far0").send(frame_of(60, 'a'));
        EXPECT_EQ(download.receive(16 + 60).substr(16), frame_of(60, 'a'));
        download.browser.b.reset();
        EXPECT_EQ(download.wait(), 0);
        EXPECT_FALSE(is_promiscuous("near0"));
    }
}

NETWORK_TEST(exact_stream_pcap, with_limits_it_ends_when_the_browser_closes_while_no_frame_comes) {
    for (int max_bytes : {0, 1000000}) {
        exact_download download(long_time, max_bytes);
        download.browser.b.reset();
        EXPECT_EQ(download.wait(), 0);
        EXPECT_FALSE(is_promiscuous("near0"));
    }
}

TEST(exact_stream_pcap, writes_nothing_if_no_interface_can_be_opened) {
    test_pipe output;
    int status = run_in_child([&output] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        (void)freopen("/dev/null", "w", stderr);
        return stream_pcap(output.in.get(), 1, 1000, "lo", true);
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    EXPECT_EQ(output.finish(), "");
}
