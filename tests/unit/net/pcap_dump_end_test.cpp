#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <chrono>
#include <string>
#include <vector>

#include "net/pcap_dump.h"
#include "tests/unit/net/pcap_dump_capture.h"
#include "tests/unit/net/times.h"

CAPTURE_TEST(pcap_dump, ends_after_its_time_and_does_not_spin) {
    for (bool regular_file : {true, false}) {
        test_socketpair browser;
        unique_fd file = memory_file();
        uint64_t before = now_us();
        int64_t cpu = thread_cpu_us();
        char names[] = "near0";
        EXPECT_EQ(pcap_dump(names, regular_file ? file.get() : browser.a.get(), 0, 0, 2, 0, nullptr), 24);
        EXPECT_GE(now_us() - before, 1000000u);
        EXPECT_LT(thread_cpu_us() - cpu, 100000) << regular_file;
    }
}

NETWORK_TEST(pcap_dump, slow_browser_gets_all_frames_that_came_in_time) {
    constexpr uint64_t burst = 2000;
    held_capture capture("near0", {.max_total = 24 + 2 * burst * 1530, .duration = 1}, 1);
    frame_sender wire("far0");
    for (size_t i = 0; i < burst; i++) {
        wire.send(frame_of(1514, static_cast<char>(i)));
    }
    EXPECT_EQ(pcap_read(capture.finish(std::chrono::milliseconds(40))).frames().size(), burst);
}

NETWORK_TEST(pcap_dump, slow_browser_gets_no_frames_after_the_time_limit) {
    held_capture capture("near0", {.duration = 1}, 1);
    send_numbered(0, long_burst);
    capture.begin();
    const auto over = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    EXPECT_TRUE(eventually([over] { return std::chrono::steady_clock::now() > over; }));
    send_numbered(long_burst, 50);
    expect_numbers(pcap_read(capture.finish()).frame_bytes(), long_burst);
}

NETWORK_TEST(pcap_dump, frames_after_the_end_are_not_recorded) {
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    for (bool is_stopped : {true, false}) {
        held_capture capture("near0", {.stop_fd = is_stopped ? stop.get() : -1}, 1);
        send_numbered(0, long_burst);
        if (!is_stopped) {
            ASSERT_TRUE(run_command("ip link set near0 down"));
            ASSERT_TRUE(run_command("ip link set near0 up"));
        }
        capture.begin();
        send_numbered(long_burst, 50);
        expect_numbers(pcap_read(capture.finish()).frame_bytes(), long_burst);
    }
}

CAPTURE_TEST(pcap_dump, stop_ends_it_after_a_queued_frame) {
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    held_capture capture("near0", {.stop_fd = stop.get()}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    std::string bytes = capture.finish();
    EXPECT_EQ(pcap_read(bytes).frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
    EXPECT_EQ(capture.result(), static_cast<int32_t>(bytes.size()));
}

NETWORK_TEST(pcap_dump, stop_ends_it_after_all_queued_frames) {
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    held_capture capture("near0", {.stop_fd = stop.get()}, 1);
    frame_sender wire("far0");
    for (int i = 0; i < 1000; i++) {
        wire.send(numbered_frame(i));
    }
    std::vector<std::string> frames = pcap_read(capture.finish()).frame_bytes();
    ASSERT_EQ(frames.size(), 1000u);
    EXPECT_EQ(frames.back(), numbered_frame(999));
}

CAPTURE_TEST(pcap_dump, interface_that_is_down_or_goes_down_ends_the_capture) {
    ASSERT_TRUE(run_command("ip link set near0 down"));
    EXPECT_EQ(capture_now("near0", {.max_total = 500, .duration = 1000}).bytes.size(), 500u);
    ASSERT_TRUE(run_command("ip link set near0 up"));
    held_capture capture("near0", {.max_total = 500, .duration = 1000}, 1);
    ASSERT_TRUE(run_command("ip link set near0 down"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_EQ(capture.result(), 500);
}

CAPTURE_TEST(pcap_dump, interface_that_goes_down_and_up_ends_the_capture) {
    held_capture capture("near0", {.max_total = 500, .duration = 1000, .promisc = 1}, 1);
    ASSERT_TRUE(run_command("ip link set near0 down"));
    ASSERT_TRUE(run_command("ip link set near0 up"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, frames_before_the_interface_went_down_are_recorded) {
    for (const char* end_of_it : {"ip link set near0 down", "ip link del near0"}) {
        ASSERT_TRUE(run_command("ip link set near0 up"));
        held_capture capture("near0", {.max_total = 5000, .duration = 1000}, 1);
        frame_sender wire("far0");
        std::vector<std::string> sent;
        for (char fill : {'a', 'b', 'c'}) {
            sent.push_back(frame_of(60, fill));
            wire.send(sent.back());
        }
        ASSERT_TRUE(run_command(end_of_it));
        std::string bytes = capture.finish();
        EXPECT_EQ(bytes.size(), 5000u);
        EXPECT_EQ(pcap_read(bytes).frame_bytes(), sent) << end_of_it;
    }
}

CAPTURE_TEST(pcap_dump, renamed_interface_is_captured_and_leaves_promiscuous_mode) {
    held_capture capture("near0", {.max_total = 500, .duration = 1000, .promisc = 1}, 1);
    ASSERT_TRUE(run_command("ip link set near0 down"));
    ASSERT_TRUE(run_command("ip link set near0 name moved0"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("moved0"));
}

CAPTURE_TEST(pcap_dump, interface_that_vanishes_ends_the_capture) {
    held_capture capture("near0,near1", {.max_total = 500, .duration = 1000, .promisc = 1}, 2);
    ASSERT_TRUE(run_command("ip link del near0"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("near1"));
}
