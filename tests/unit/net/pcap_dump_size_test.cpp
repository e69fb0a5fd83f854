#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "net/pcap_dump.h"
#include "tests/unit/net/pcap_dump_capture.h"

NETWORK_TEST(pcap_dump, frame_that_does_not_fit_ends_the_capture) {
    held_capture capture("near0", {.max_total = 100, .duration = 1000}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    std::string bytes = capture.finish();
    EXPECT_EQ(capture.result(), 100);
    EXPECT_EQ(bytes.size(), 100u);
    EXPECT_EQ(pcap_read(bytes).padding_sizes(), std::vector<size_t>{76});
}

CAPTURE_TEST(pcap_dump, frame_fits_if_48_bytes_remain_after_it) {
    constexpr unsigned frame_size = 60;
    constexpr unsigned fits_not = 24 + frame_size + 48;
    for (unsigned total : {fits_not - 1, fits_not, fits_not + 1}) {
        bool fits = total > fits_not;
        held_capture capture("near0", {.max_total = total, .duration = 1000}, 1);
        frame_sender wire("far0");
        wire.send(frame_of(frame_size, 'a'));
        wire.send(frame_of(frame_size, 'b'));
        std::string bytes = capture.finish();
        EXPECT_EQ(bytes.size(), total);
        EXPECT_EQ(capture.result(), static_cast<int32_t>(total));
        pcap_content content = pcap_read(bytes);
        EXPECT_EQ(content.frame_bytes(),
                  fits ? std::vector<std::string>{frame_of(frame_size, 'a')} : std::vector<std::string>{});
        EXPECT_EQ(content.rest, "");
    }
}

CAPTURE_TEST(pcap_dump, size_is_checked_for_each_queued_frame) {
    held_capture capture("near0", {.max_total = 100000, .duration = 1000}, 1);
    frame_sender wire("far0");
    for (int i = 0; i < 200; i++) {
        wire.send(frame_of(1000, static_cast<char>(i)));
    }
    std::string bytes = capture.finish();
    EXPECT_EQ(bytes.size(), 100000u);
    // 24 + n * 1016 + 1000 + 48 reaches 100000 first at n = 98.
    std::vector<std::string> frames = pcap_read(bytes).frame_bytes();
    ASSERT_EQ(frames.size(), 98u);
    for (size_t i = 0; i < frames.size(); i++) {
        EXPECT_EQ(frames[i], frame_of(1000, static_cast<char>(i)));
    }
}

CAPTURE_TEST(pcap_dump, only_an_exact_capture_has_lengths_above_1536) {
    ASSERT_TRUE(allow_long_frames());
    for (bool exact : {false, true}) {
        for (unsigned snaplen : {0u, 1536u}) {
            unique_fd stop(eventfd(1, EFD_CLOEXEC));  // only what is queued is recorded
            held_capture capture("near0", {.snaplen = snaplen, .is_exact = exact, .stop_fd = stop.get()}, 1);
            frame_sender("far0").send(frame_of(9000, 'l'));
            pcap_content content = pcap_read(capture.finish());
            ASSERT_EQ(content.frame_bytes(), std::vector<std::string>{frame_of(1536, 'l')});
            EXPECT_EQ(content.records[0].orig_len, exact ? 9000u : 1536u);
        }
    }
}

CAPTURE_TEST(pcap_dump, exact_capture_is_filled_up_with_padding_records) {
    constexpr unsigned total = 100000;
    unique_fd stop(eventfd(1, EFD_CLOEXEC));  // only what is queued is recorded
    held_capture capture("near0", {.max_total = total, .is_exact = true, .stop_fd = stop.get()}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    std::string bytes = capture.finish();
    EXPECT_EQ(bytes.size(), total);
    pcap_content content = pcap_read(bytes);
    EXPECT_EQ(content.frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
    EXPECT_EQ(content.padding_sizes(), (std::vector<size_t>{32767, 32767, 32767, total - 100 - 3 * 32767}));
    EXPECT_EQ(content.rest, "");
}

NETWORK_TEST(pcap_dump, total_of_up_to_100_bytes_is_exact) {
    for (unsigned total = 1; total <= 100; total++) {
        whole_capture captured = capture_now("near0", {.max_total = total, .duration = -1});
        EXPECT_EQ(captured.bytes.size(), std::max(total, 24u));
        EXPECT_EQ(captured.result, static_cast<int32_t>(std::max(total, 24u)));
        EXPECT_EQ(captured.bytes.substr(0, 24), pcap_expected_file_header());
    }
}

NETWORK_TEST(pcap_dump, total_without_frames_is_padding) {
    whole_capture captured = capture_now("near0", {.max_total = 24 + 32770, .duration = 1});
    EXPECT_EQ(captured.content.padding_sizes(), (std::vector<size_t>{16383, 16387}));
    EXPECT_EQ(captured.result, 24 + 32770);
}

NETWORK_TEST(pcap_dump, stream_without_a_size_is_not_padded) {
    EXPECT_EQ(capture_now("near0", {.duration = 1}).bytes, pcap_expected_file_header());
}
