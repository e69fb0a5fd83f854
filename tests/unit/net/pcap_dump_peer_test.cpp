#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <thread>

#include "net/pcap_dump.h"
#include "tests/unit/net/pcap_dump_capture.h"

namespace {

// A browser that downloads a capture of near0, with a size and a time that it does not reach.
struct endless_download {
    bool has_loopback = run_command("ip link set lo up");
    tcp_connection connection;
    int32_t result = -2;
    std::thread capture;

    endless_download() {
        EXPECT_TRUE(has_loopback);
        signal(SIGPIPE, SIG_IGN);
        capture = std::thread([this] {
            char names[] = "near0";
            result = pcap_dump(names, connection.server.get(), 100000, 0, 1000000, 1, nullptr);
        });
        expect(24);  // the file header
    }
    // Waits until the browser has received `count` more bytes.
    void expect(size_t count) {
        std::string got(count, '\0');
        EXPECT_EQ(recv(connection.browser.get(), got.data(), count, MSG_WAITALL),
                  static_cast<ssize_t>(count));
    }
    void stop_sending() { EXPECT_EQ(shutdown(connection.browser.get(), SHUT_WR), 0); }
    void reset() {
        linger at_once = {1, 0};
        EXPECT_EQ(setsockopt(connection.browser.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
        connection.browser.reset();
    }
    // Waits for the capture, which must end by itself, and returns its result. If it does not, sends a frame
    // to end it, because the test would hang.
    int32_t wait() {
        auto since = std::chrono::steady_clock::now();
        if (!eventually([] { return capturing_sockets() == 0; })) {
            frame_sender("far0").send(frame_of(60, 'h'));
        }
        capture.join();
        EXPECT_LT(std::chrono::steady_clock::now() - since, std::chrono::seconds(5));
        return result;
    }
};

}  // namespace

NETWORK_TEST(pcap_dump, browser_that_has_stopped_sending_is_served_without_spinning) {
    test_socketpair browser;
    EXPECT_EQ(write(browser.b.get(), "GET again", 9), 9);
    EXPECT_EQ(shutdown(browser.b.get(), SHUT_WR), 0);
    char names[] = "near0";
    int64_t cpu = thread_cpu_us();
    EXPECT_EQ(pcap_dump(names, browser.a.get(), 1000, 1536, 2, 1, nullptr), 1000);
    EXPECT_LT(thread_cpu_us() - cpu, 100000);
    browser.a.reset();
    EXPECT_EQ(read_all(browser.b.get()).size(), 1000u);
}

NETWORK_TEST(pcap_dump, sized_capture_fails_if_the_browser_has_closed) {
    held_capture capture("near0", {.max_total = 100000, .duration = 1000000}, 1);
    capture.close_after_header();
    EXPECT_EQ(capture.result(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, frame_to_a_closed_browser_fails) {
    held_capture capture("near0", {.duration = 1000000, .promisc = 1}, 1);
    capture.close_after_header();
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(capture.result(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, reset_after_end_of_input_ends_it_without_a_frame) {
    endless_download download;
    download.stop_sending();
    // The capture reads the browser's end of file before it records this frame.
    frame_sender("far0").send(frame_of(60, 'a'));
    download.expect(16 + 60);
    download.reset();
    EXPECT_EQ(download.wait(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, reset_ends_it_without_a_frame) {
    for (bool stops_before : {false, true}) {
        endless_download download;
        if (stops_before) {
            download.stop_sending();
        }
        download.reset();
        EXPECT_EQ(download.wait(), -1);
    }
}

NETWORK_TEST(pcap_dump, without_limits_it_ends_when_the_browser_closes) {
    test_socketpair browser;
    int32_t result = -2;
    std::thread capture([&] {
        char names[] = "near0";
        result = pcap_dump(names, browser.a.get(), 0, 0, 0, 1, nullptr);
    });
    EXPECT_EQ(write(browser.b.get(), "more", 4), 4);
    char header[24];
    EXPECT_EQ(recv(browser.b.get(), header, sizeof header, MSG_WAITALL), 24);
    frame_sender("far0").send(frame_of(60, 'a'));
    char record[76];
    EXPECT_EQ(recv(browser.b.get(), record, sizeof record, MSG_WAITALL), 76);
    EXPECT_EQ(std::string(record + 16, 60), frame_of(60, 'a'));
    browser.b.reset();
    capture.join();
    EXPECT_EQ(result, 100);
}
