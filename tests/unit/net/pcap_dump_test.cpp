#include "net/pcap_dump.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <sys/eventfd.h>

#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/net/pcap_dump_capture.h"
#include "tests/unit/net/times.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/memory_limit.h"

CAPTURE_TEST(pcap_dump, records_whole_frames_with_their_timestamps) {
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    std::vector<std::string> sent = {frame_of(60, 'a'), frame_of(1514, 'b'), frame_of(14, 'c')};
    uint64_t before = now_us();
    for (const std::string& frame : sent) {
        wire.send(frame);
    }
    std::string bytes = capture.finish();
    pcap_content content = pcap_read(bytes);
    EXPECT_EQ(content.file_header, pcap_expected_file_header());
    EXPECT_EQ(content.rest, "");
    EXPECT_EQ(content.frame_bytes(), sent);
    EXPECT_EQ(capture.result(), static_cast<int32_t>(bytes.size()));
    uint64_t last = before;
    for (const pcap_record& record : content.records) {
        EXPECT_EQ(record.orig_len, record.data.size());
        EXPECT_GE(record.time_us(), last);
        last = record.time_us();
    }
    EXPECT_LE(last, now_us());
}

CAPTURE_TEST(pcap_dump, snap_length_holds_for_every_record) {
    for (unsigned snaplen : {1u, 60u, 1000u, 1536u, 1537u, 5000u}) {
        held_capture capture("near0", {.snaplen = snaplen, .duration = 1}, 1);
        frame_sender wire("far0");
        std::vector<std::string> wanted;
        for (size_t size : {1514, 60, 700}) {
            wire.send(frame_of(size, 'x'));
            wanted.push_back(zero_filled(frame_of(size, 'x'), snaplen));
        }
        pcap_content content = pcap_read(capture.finish());
        EXPECT_EQ(content.frame_bytes(), wanted) << snaplen;
        ASSERT_EQ(content.records.size(), 3u);
        EXPECT_EQ(content.records[1].orig_len, 60u);
    }
}

CAPTURE_TEST(pcap_dump, cuts_frames_at_1536_bytes) {
    for (const char* end : {"near0", "far0"}) {
        ASSERT_TRUE(run_command(std::string("ip link set mtu 9000 dev ") + end));
    }
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    wire.send(frame_of(9000, 'j'));
    wire.send(frame_of(60, 'k'));
    pcap_content content = pcap_read(capture.finish());
    EXPECT_EQ(content.frame_bytes(), (std::vector<std::string>{frame_of(1536, 'j'), frame_of(60, 'k')}));
    EXPECT_EQ(content.records.at(0).orig_len, 1536u);
}

CAPTURE_TEST(pcap_dump, filters_from_the_first_frame_on) {
    sock_filter only_long_frames[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, 100, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 50),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    sock_fprog filter = {std::size(only_long_frames), only_long_frames};
    held_capture capture("near0", {.duration = 1, .filter = &filter}, 1);
    frame_sender wire("far0");
    wire.send(frame_of(60, 'a'));
    wire.send(frame_of(200, 'b'));
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(), std::vector<std::string>{frame_of(50, 'b')});
}

CAPTURE_TEST(pcap_dump, unknown_names_capture_all_interfaces) {
    held_capture capture("nope,nor,this", {.duration = 1}, 1);
    frame_sender("far1").send(frame_of(60, 'a'));
    // Captured at the far end, which sends it, and at the near end.
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(),
              (std::vector<std::string>{frame_of(60, 'a'), frame_of(60, 'a')}));
}

CAPTURE_TEST(pcap_dump, burst_larger_than_the_default_queue_is_kept) {
    // Ends at its size, since the last frame no longer fits. A time limit would depend on the machine's
    // speed.
    constexpr uint64_t burst = 3000;
    held_capture capture("near0", {.max_total = 24 + burst * 1530 + 1514 + 48, .duration = 1000}, 1);
    frame_sender wire("far0");
    for (size_t i = 0; i <= burst; i++) {
        wire.send(frame_of(1514, static_cast<char>(i)));
    }
    std::vector<std::string> frames = pcap_read(capture.finish()).frame_bytes();
    ASSERT_EQ(frames.size(), burst);
    for (size_t i = 0; i < burst; i++) {
        ASSERT_EQ(frames[i][1000], static_cast<char>(i));
    }
}

NETWORK_TEST(pcap_dump, long_frames_take_only_the_recorded_part_of_the_ring) {
    for (const char* end : {"near0", "far0"}) {
        ASSERT_TRUE(run_command(std::string("ip link set mtu 9000 dev ") + end));
    }
    sock_filter everything = BPF_STMT(BPF_RET | BPF_K, UINT32_MAX);
    sock_fprog filter = {1, &everything};
    for (const sock_fprog* attached : {static_cast<const sock_fprog*>(nullptr), &std::as_const(filter)}) {
        constexpr uint64_t burst = 4000;  // 36 MB
        const unsigned total = 24 + burst * (16 + 1536) + 1536 + 48;
        held_capture capture("near0", {.max_total = total, .duration = 1000, .filter = attached}, 1);
        frame_sender wire("far0");
        for (size_t i = 0; i <= burst; i++) {
            wire.send(frame_of(9000, static_cast<char>(i)));
        }
        std::vector<std::string> frames = pcap_read(capture.finish()).frame_bytes();
        ASSERT_EQ(frames.size(), burst);
        EXPECT_EQ(frames.back(), frame_of(1536, static_cast<char>(burst - 1)));
    }
}

CAPTURE_TEST(pcap_dump, dense_traffic_is_complete_and_in_order) {
    held_capture capture("near0,near1", {.max_total = 24 + 4999 * 76 + 60 + 48, .duration = 1000}, 2);
    std::thread sender([] {
        frame_sender first("far0");
        frame_sender second("far1");
        for (int i = 0; i < 5000; i++) {
            (i % 3 == 0 ? second : first).send(numbered_frame(i));
        }
    });
    std::string bytes = capture.finish();
    sender.join();
    EXPECT_EQ(pcap_read(bytes).rest, "");
    std::vector<std::string> frames = pcap_read(bytes).frame_bytes();
    EXPECT_EQ(frames.size(), 4999u);
    std::map<bool, int> last = {{false, -1}, {true, -1}};
    for (const std::string& frame : frames) {
        int number = number_of(frame);
        ASSERT_EQ(frame, numbered_frame(number));
        int step = number % 3 == 0 ? 3 : 1;
        int expected = last[number % 3 == 0] + step;
        expected += step == 1 && expected % 3 == 0 ? 1 : 0;
        ASSERT_TRUE(number == expected || (step == 3 && number == 0)) << number;
        last[number % 3 == 0] = number;
    }
}

NETWORK_TEST(pcap_dump, small_capture_has_a_small_ring_and_loses_nothing) {
    constexpr unsigned total = 512000;
    constexpr uint64_t record = 16 + 1536;
    constexpr uint64_t fitting = (total - 24 - 1536 - 48 - 1) / record + 1;
    held_capture capture("near0", {.max_total = total, .snaplen = 1536, .duration = 1000}, 1);
    EXPECT_EQ(mapped_rings(), 1);
    EXPECT_LE(mapped_ring_bytes(), 5u << 20);
    frame_sender wire("far0");
    for (uint64_t i = 0; i <= fitting; i++) {
        wire.send(frame_of(1514, static_cast<char>(i)));
    }
    EXPECT_EQ(pcap_read(capture.finish()).frames().size(), fitting);
}

NETWORK_TEST(pcap_dump, works_if_the_ring_cannot_be_mapped) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    scoped_memory_limit limit(12 << 20);  // a ring has 16 MiB
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    held_capture capture("near0", {.stop_fd = stop.get()}, 1);
    EXPECT_EQ(mapped_rings(), 0);
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
}

NETWORK_TEST(pcap_dump, several_captures_run_at_the_same_time) {
    held_capture first("near0,near1", {.duration = 1}, 2);
    held_capture second("near1,near0", {.duration = 1}, 4);
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(pcap_read(first.finish()).frames().size(), 1u);
    EXPECT_EQ(pcap_read(second.finish()).frames().size(), 1u);
}

NETWORK_TEST(pcap_dump, leaves_no_descriptor_open) {
    unique_fd file = memory_file();
    std::set<int> before = open_fds();
    char names[] = "near0,near1";
    EXPECT_EQ(pcap_dump(names, file.get(), 0, 0, -1, 1, nullptr), 24);
    EXPECT_EQ(open_fds(), before);
}

TEST(pcap_dump, writes_nothing_if_no_interface_can_be_opened) {
    int status = run_in_child([] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        unique_fd file = memory_file();
        char names[] = "lo";
        int32_t result = -2;
        std::string reported =
            capture_stderr([&] { result = pcap_dump(names, file.get(), 500, 0, 1, 1, nullptr); });
        return result == 0 && content_of(file.get()).empty() && !reported.empty() ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

NETWORK_TEST(pcap_dump, full_disk_is_an_error) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    for (std::string name : {"near0", "any"}) {
        errno = 0;
        EXPECT_EQ(pcap_dump(name.data(), full.get(), 0, 0, 1000, 1, nullptr), -1);
        EXPECT_EQ(errno, ENOSPC) << name;
    }
    EXPECT_FALSE(is_promiscuous("near0"));
}
