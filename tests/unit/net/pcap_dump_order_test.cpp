#include <gtest/gtest.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "net/pcap_dump.h"
#include "tests/unit/net/pcap_dump_capture.h"
#include "tests/unit/net/times.h"

namespace {

std::atomic<int> clock_offset_s = 0;

}  // namespace

// Replaces the C library's function in this program, so that a test can set the clock.
extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    *now = {static_cast<time_t>(real.tv_sec + clock_offset_s), static_cast<suseconds_t>(real.tv_nsec / 1000)};
    return 0;
}

NETWORK_TEST(pcap_dump, frames_of_a_ring_have_the_time_of_their_arrival) {
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    wire.send(frame_of(60, 'a'));
    const uint64_t between = now_us() + 50000;
    EXPECT_TRUE(eventually([between] { return now_us() > between; }));
    wire.send(frame_of(60, 'b'));
    pcap_content content = pcap_read(capture.finish());
    ASSERT_EQ(content.records.size(), 2u);
    EXPECT_LT(content.records[0].time_us(), between);
    EXPECT_GT(content.records[1].time_us(), between);
}

NETWORK_TEST(pcap_dump, frames_that_are_read_have_the_time_of_reading) {
    ASSERT_TRUE(forbid_rings());
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    const uint64_t before = now_us();
    pcap_content content = pcap_read(capture.finish());
    ASSERT_EQ(content.records.size(), 1u);
    EXPECT_GE(content.records[0].time_us(), before);
}

CAPTURE_TEST(pcap_dump, queued_frames_of_several_interfaces_are_recorded_in_turn) {
    held_capture capture("near0,near1", {.duration = 1}, 2);
    frame_sender first("far0");
    frame_sender second("far1");
    std::vector<std::string> wanted;
    constexpr int together = 150;  // more than are fetched in one go
    for (int i = 0; i < 2 * together; i++) {
        char fill = static_cast<char>(i);
        first.send(frame_of(60, fill));
        wanted.push_back(frame_of(60, fill));
        if (i < together) {
            second.send(frame_of(61, fill));
            wanted.push_back(frame_of(61, fill));
        }
    }
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(), wanted);
}

CAPTURE_TEST(pcap_dump, timestamps_never_decrease) {
    for (const char* interfaces : {"near0,near1", "near1,near0", "near0"}) {
        bool both = strchr(interfaces, ',') != nullptr;
        held_capture capture(interfaces, {.max_total = 24 + 1999 * 76 + 60 + 48, .duration = 1000},
                             both ? 2 : 1);
        auto send_half = [](const char* end) {
            frame_sender wire(end);
            for (int i = 0; i < 1000; i++) {
                wire.send(numbered_frame(i));
            }
        };
        std::thread first(send_half, "far0");
        std::thread second(send_half, both ? "far1" : "far0");
        pcap_content content = pcap_read(capture.finish());
        first.join();
        second.join();
        EXPECT_EQ(content.frames().size(), 1999u);
        expect_in_order(content.frames());
    }
}

NETWORK_TEST(pcap_dump, frames_out_of_order_are_sorted_by_their_timestamps) {
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    const uint64_t begin = now_us();
    for (int step : {1, 4, 2, 3}) {
        wire.send_at(numbered_frame(step), begin + static_cast<uint64_t>(step) * 10);
    }
    std::vector<pcap_record> records = pcap_read(capture.finish()).records;
    ASSERT_EQ(records.size(), 4u);
    if (records[0].time_us() != begin + 10) {
        GTEST_SKIP() << "needs a kernel that passes a frame's send time to the receiver";
    }
    for (size_t i = 0; i < records.size(); i++) {
        EXPECT_EQ(records[i].time_us(), begin + 10 * (i + 1));
        EXPECT_EQ(number_of(records[i].data), static_cast<int>(i) + 1);
    }
}

NETWORK_TEST(pcap_dump, order_of_arrival_is_kept_when_the_clock_is_set_back) {
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    const uint64_t begin = now_us();
    constexpr uint64_t hour = 3600000000;
    wire.send_at(numbered_frame(0), begin);
    wire.send_at(numbered_frame(1), begin - hour);
    wire.send_at(numbered_frame(2), begin - hour + 10);
    wire.send_at(numbered_frame(3), begin + 10);
    pcap_content content = pcap_read(capture.finish());
    expect_numbers(content.frame_bytes(), 4);
    expect_in_order(content.records);
}

NETWORK_TEST(pcap_dump, timestamps_of_reading_never_decrease_when_the_clock_is_set_back) {
    ASSERT_TRUE(forbid_rings());
    test_socketpair browser;
    std::thread capture([&browser] {
        char names[] = "near0";
        EXPECT_EQ(pcap_dump(names, browser.a.get(), 0, 0, 0, 1, nullptr), 24 + 3 * 76);
    });
    std::string stream(24, '\0');
    EXPECT_EQ(recv(browser.b.get(), stream.data(), stream.size(), MSG_WAITALL), 24);
    frame_sender wire("far0");
    for (int64_t clock_s : {7200, 3600, 10000}) {
        clock_offset_s = clock_s;
        wire.send(frame_of(60, 'a'));
        std::string record(76, '\0');
        EXPECT_EQ(recv(browser.b.get(), record.data(), record.size(), MSG_WAITALL), 76);
        stream += record;
    }
    clock_offset_s = 0;
    browser.b.reset();
    capture.join();
    std::vector<pcap_record> records = pcap_read(stream).records;
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].time_us(), records[0].time_us());
    EXPECT_GT(records[2].time_us(), records[1].time_us());
}
