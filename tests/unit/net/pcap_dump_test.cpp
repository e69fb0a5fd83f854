#include "net/pcap_dump.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/net/times.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"

namespace {

std::atomic<int> set_forward_s = 0;

}  // namespace

// The wall clock of this program, which a test can set.
extern "C" int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    *now = {static_cast<time_t>(real.tv_sec + set_forward_s), static_cast<suseconds_t>(real.tv_nsec / 1000)};
    return 0;
}

namespace {

constexpr char filler = 'f';

// A capture on a thread of its own. Its output is a pipe that is full at first: the capture has its sockets
// but can't begin, and whatever is sent until begin() is queued when it does.
class held_capture {
public:
    held_capture(const char* interfaces, const pcap_dump_options& options, int sockets)
        : names_(interfaces), options_(options) {
        signal(SIGPIPE, SIG_IGN);
        set_nonblocking(pipe_.in.get());
        std::string block(4096, filler);
        while (write(pipe_.in.get(), block.data(), block.size()) > 0) {
            held_ += block.size();
        }
        EXPECT_EQ(fcntl(pipe_.in.get(), F_SETFL, 0), 0);
        thread_ = std::thread([this] {
            result_ = pcap_dump_with(names_.data(), pipe_.in.get(), options_);
            pipe_.in.reset();
        });
        EXPECT_TRUE(eventually([sockets] { return capturing_sockets() == sockets; }));
    }
    held_capture(const held_capture&) = delete;
    held_capture& operator=(const held_capture&) = delete;
    ~held_capture() {
        pipe_.out.reset();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // Lets it begin and returns what it wrote, when it has ended; `pause` is made behind each 64 KiB of it.
    std::string finish(std::chrono::milliseconds pause = {}) {
        std::string all;
        for (std::string piece(1 << 16, '\0');;) {
            ssize_t got = read(pipe_.out.get(), piece.data(), piece.size());
            if (got <= 0) {
                break;
            }
            all.append(piece, 0, static_cast<size_t>(got));
            std::this_thread::sleep_for(pause);
        }
        thread_.join();
        EXPECT_EQ(all.substr(0, held_), std::string(held_, filler));
        return all.substr(held_);
    }
    // Lets it begin, and returns when it writes records. There are to be more of them than the pipe holds.
    void begin() {
        for (std::string piece(held_, '\0'); held_ > 0;) {
            ssize_t got = read(pipe_.out.get(), piece.data(), held_);
            ASSERT_GT(got, 0);
            held_ -= static_cast<size_t>(got);
        }
        EXPECT_TRUE(eventually([this] {
            int queued = 0;
            return ioctl(pipe_.out.get(), FIONREAD, &queued) == 0 && queued > 24;
        }));
    }
    // Lets it begin and goes away when the file header has come.
    void leave() {
        std::string all(held_ + 24, '\0');
        for (size_t at = 0; at < all.size();) {
            ssize_t got = read(pipe_.out.get(), all.data() + at, all.size() - at);
            ASSERT_GT(got, 0);
            at += static_cast<size_t>(got);
        }
        pipe_.out.reset();
    }
    int32_t result() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return result_;
    }

private:
    std::string names_;
    pcap_dump_options options_;
    test_pipe pipe_;
    size_t held_ = 0;
    int32_t result_ = -2;
    std::thread thread_;
};

// A capture into memory, over when it returns.
struct whole_capture {
    int32_t result;
    pcap_content content;
    std::string bytes;
};

whole_capture capture_now(const char* interfaces, const pcap_dump_options& options) {
    unique_fd file = memory_file();
    std::string names = interfaces;
    int32_t result = pcap_dump_with(names.data(), file.get(), options);
    std::string bytes = content_of(file.get());
    return {result, pcap_read(bytes), bytes};
}

std::string zero_filled(std::string frame, size_t size) {
    frame.resize(size, '\0');
    return frame;
}

std::string numbered_frame(int number) {
    std::string frame = frame_of(60, 'n');
    memcpy(&frame[14], &number, sizeof number);
    return frame;
}

int number_of(const std::string& frame) {
    int number = -1;
    memcpy(&number, &frame.at(14), sizeof number);
    return number;
}

void expect_in_order(const std::vector<pcap_record>& records) {
    auto late = std::adjacent_find(records.begin(), records.end(),
                                   [](const auto& a, const auto& b) { return b.time_us() < a.time_us(); });
    EXPECT_EQ(late - records.begin(), records.end() - records.begin());
}

// More than is fetched in one go, and more than a pipe holds.
constexpr int long_burst = 600;

void send_numbered(int first, int count) {
    frame_sender wire("far0");
    for (int i = first; i < first + count; i++) {
        wire.send(zero_filled(numbered_frame(i), 1000));
    }
}

// Numbers from 0 up to `count`.
void expect_numbers(const std::vector<std::string>& frames, int count) {
    ASSERT_EQ(frames.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        ASSERT_EQ(number_of(frames[static_cast<size_t>(i)]), i);
    }
}

int64_t thread_cpu_us() {
    timespec used;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * 1000000 + used.tv_nsec / 1000;
}

}  // namespace

CAPTURE_TEST(pcap_dump, whole_frames_with_their_timestamps) {
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

NETWORK_TEST(pcap_dump, frames_in_shared_memory_have_the_timestamp_of_their_arrival) {
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

NETWORK_TEST(pcap_dump, frames_that_are_read_have_the_timestamp_of_their_reading) {
    ASSERT_TRUE(forbid_rings());
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    const uint64_t before = now_us();
    pcap_content content = pcap_read(capture.finish());
    ASSERT_EQ(content.records.size(), 1u);
    EXPECT_GE(content.records[0].time_us(), before);
}

CAPTURE_TEST(pcap_dump, queued_frames_of_several_interfaces_come_in_turn) {
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

CAPTURE_TEST(pcap_dump, timestamps_never_decrease_whatever_the_interfaces) {
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

NETWORK_TEST(pcap_dump, frames_that_overtook_each_other_are_recorded_in_the_order_of_their_timestamps) {
    held_capture capture("near0", {.duration = 1}, 1);
    frame_sender wire("far0");
    const uint64_t begin = now_us();
    for (int step : {1, 4, 2, 3}) {
        wire.send_at(numbered_frame(step), begin + static_cast<uint64_t>(step) * 10);
    }
    std::vector<pcap_record> records = pcap_read(capture.finish()).records;
    ASSERT_EQ(records.size(), 4u);
    if (records[0].time_us() != begin + 10) {
        GTEST_SKIP() << "needs a kernel that passes the time of sending on";
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

NETWORK_TEST(pcap_dump, timestamps_never_decrease_though_the_clock_is_set_back) {
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
        set_forward_s = clock_s;
        wire.send(frame_of(60, 'a'));
        std::string record(76, '\0');
        EXPECT_EQ(recv(browser.b.get(), record.data(), record.size(), MSG_WAITALL), 76);
        stream += record;
    }
    set_forward_s = 0;
    browser.b.reset();
    capture.join();
    std::vector<pcap_record> records = pcap_read(stream).records;
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].time_us(), records[0].time_us());
    EXPECT_GT(records[2].time_us(), records[1].time_us());
}

CAPTURE_TEST(pcap_dump, burst_larger_than_the_systems_own_queue_is_kept) {
    // Over when the size is reached, which the last frame of the burst no longer fits in: how long it takes
    // to send all depends on the machine.
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

NETWORK_TEST(pcap_dump, burst_of_long_frames_takes_no_more_shared_memory_than_is_recorded_of_them) {
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

CAPTURE_TEST(pcap_dump, dense_traffic_comes_whole_and_in_order) {
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

CAPTURE_TEST(pcap_dump, frame_beyond_1536_bytes_is_cut) {
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

NETWORK_TEST(pcap_dump, frame_that_does_not_fit_ends_the_capture) {
    held_capture capture("near0", {.max_total = 100, .duration = 1000}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    std::string bytes = capture.finish();
    EXPECT_EQ(capture.result(), 100);
    EXPECT_EQ(bytes.size(), 100u);
    EXPECT_EQ(pcap_read(bytes).padding_sizes(), std::vector<size_t>{76});
}

CAPTURE_TEST(pcap_dump, frame_needs_its_bytes_and_48_more_and_one_that_fits_is_kept) {
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

CAPTURE_TEST(pcap_dump, size_is_checked_for_each_of_the_queued_frames) {
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

NETWORK_TEST(pcap_dump, without_an_exact_size_nothing_is_padded) {
    EXPECT_EQ(capture_now("near0", {.duration = 1}).bytes, pcap_expected_file_header());
}

CAPTURE_TEST(pcap_dump, time_is_over_after_its_seconds_and_costs_no_cpu_time) {
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

NETWORK_TEST(pcap_dump, promised_size_to_a_browser_that_has_gone_fails) {
    held_capture capture("near0", {.max_total = 100000, .duration = 1000000}, 1);
    capture.leave();
    EXPECT_EQ(capture.result(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, frame_to_a_browser_that_has_gone_fails) {
    held_capture capture("near0", {.duration = 1000000, .promisc = 1}, 1);
    capture.leave();
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(capture.result(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

// A browser's download of a capture of near0, which promises more than ever comes in a time that never ends.
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
    // Waits until the browser has got `count` more bytes.
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
    // The result of the capture, which has to end by itself; a frame helps one that does not.
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

NETWORK_TEST(pcap_dump, browser_that_stops_sending_and_then_resets_ends_it_though_no_frame_comes) {
    endless_download download;
    download.stop_sending();
    // The end of what the browser sends has been read when this comes, and the capture goes on.
    frame_sender("far0").send(frame_of(60, 'a'));
    download.expect(16 + 60);
    download.reset();
    EXPECT_EQ(download.wait(), -1);
    EXPECT_FALSE(is_promiscuous("near0"));
}

NETWORK_TEST(pcap_dump, browser_that_resets_ends_it_though_no_frame_comes) {
    for (bool stops_before : {false, true}) {
        endless_download download;
        if (stops_before) {
            download.stop_sending();
        }
        download.reset();
        EXPECT_EQ(download.wait(), -1);
    }
}

NETWORK_TEST(pcap_dump, frames_come_also_when_there_is_no_room_to_share_memory) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    scoped_memory_limit limit(12 << 20);  // a ring has 16 MiB
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    held_capture capture("near0", {.stop_fd = stop.get()}, 1);
    EXPECT_EQ(mapped_rings(), 0);
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
}

NETWORK_TEST(pcap_dump, frames_that_have_come_in_time_are_recorded_however_slow_the_browser_is) {
    constexpr uint64_t burst = 2000;
    held_capture capture("near0", {.max_total = 24 + 2 * burst * 1530, .duration = 1}, 1);
    frame_sender wire("far0");
    for (size_t i = 0; i < burst; i++) {
        wire.send(frame_of(1514, static_cast<char>(i)));
    }
    EXPECT_EQ(pcap_read(capture.finish(std::chrono::milliseconds(40))).frames().size(), burst);
}

NETWORK_TEST(pcap_dump, without_limits_it_ends_when_the_browser_goes) {
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

NETWORK_TEST(pcap_dump, full_disk_fails) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    for (std::string name : {"near0", "any"}) {
        errno = 0;
        EXPECT_EQ(pcap_dump(name.data(), full.get(), 0, 0, 1000, 1, nullptr), -1);
        EXPECT_EQ(errno, ENOSPC) << name;
    }
    EXPECT_FALSE(is_promiscuous("near0"));
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

NETWORK_TEST(pcap_dump, what_came_before_the_interface_went_is_recorded) {
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

NETWORK_TEST(pcap_dump, frames_after_the_time_limit_are_not_recorded_however_slow_the_browser_is) {
    held_capture capture("near0", {.duration = 1}, 1);
    send_numbered(0, long_burst);
    capture.begin();
    const auto over = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    EXPECT_TRUE(eventually([over] { return std::chrono::steady_clock::now() > over; }));
    send_numbered(long_burst, 50);
    expect_numbers(pcap_read(capture.finish()).frame_bytes(), long_burst);
}

CAPTURE_TEST(pcap_dump, interface_that_goes_down_and_up_at_once_ends_the_capture) {
    held_capture capture("near0", {.max_total = 500, .duration = 1000, .promisc = 1}, 1);
    ASSERT_TRUE(run_command("ip link set near0 down"));
    ASSERT_TRUE(run_command("ip link set near0 up"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("near0"));
}

CAPTURE_TEST(pcap_dump, interface_that_was_renamed_is_captured_to_the_end_and_not_promiscuous_afterwards) {
    held_capture capture("near0", {.max_total = 500, .duration = 1000, .promisc = 1}, 1);
    ASSERT_TRUE(run_command("ip link set near0 down"));
    ASSERT_TRUE(run_command("ip link set near0 name moved0"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("moved0"));
}

NETWORK_TEST(pcap_dump, small_capture_shares_little_memory_and_loses_nothing) {
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

CAPTURE_TEST(pcap_dump, interface_that_vanishes_ends_the_capture) {
    held_capture capture("near0,near1", {.max_total = 500, .duration = 1000, .promisc = 1}, 2);
    ASSERT_TRUE(run_command("ip link del near0"));
    EXPECT_EQ(capture.finish().size(), 500u);
    EXPECT_FALSE(is_promiscuous("near1"));
}

CAPTURE_TEST(pcap_dump, filter_holds_from_the_first_frame_on) {
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

CAPTURE_TEST(pcap_dump, stop_ends_it_after_what_is_queued) {
    unique_fd stop(eventfd(1, EFD_CLOEXEC));
    held_capture capture("near0", {.stop_fd = stop.get()}, 1);
    frame_sender("far0").send(frame_of(60, 'a'));
    std::string bytes = capture.finish();
    EXPECT_EQ(pcap_read(bytes).frame_bytes(), std::vector<std::string>{frame_of(60, 'a')});
    EXPECT_EQ(capture.result(), static_cast<int32_t>(bytes.size()));
}

NETWORK_TEST(pcap_dump, stop_ends_it_after_all_that_has_come) {
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

CAPTURE_TEST(pcap_dump, unknown_names_capture_everything) {
    held_capture capture("nope,nor,this", {.duration = 1}, 1);
    frame_sender("far1").send(frame_of(60, 'a'));
    // The far end shows what it sends, the near end what it receives.
    EXPECT_EQ(pcap_read(capture.finish()).frame_bytes(),
              (std::vector<std::string>{frame_of(60, 'a'), frame_of(60, 'a')}));
}

NETWORK_TEST(pcap_dump, several_captures_run_beside_each_other) {
    held_capture first("near0,near1", {.duration = 1}, 2);
    held_capture second("near1,near0", {.duration = 1}, 4);
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(pcap_read(first.finish()).frames().size(), 1u);
    EXPECT_EQ(pcap_read(second.finish()).frames().size(), 1u);
}

NETWORK_TEST(pcap_dump, leaves_no_descriptor_behind) {
    unique_fd file = memory_file();
    std::set<int> before = open_fds();
    char names[] = "near0,near1";
    EXPECT_EQ(pcap_dump(names, file.get(), 0, 0, -1, 1, nullptr), 24);
    EXPECT_EQ(open_fds(), before);
}

TEST(pcap_dump, nothing_is_written_when_no_interface_can_be_opened) {
    int status = run_in_child([] {
        if (geteuid() == 0 && setuid(65534) != 0) {
            return 77;
        }
        unique_fd file = memory_file();
        char names[] = "lo";
        int32_t result = -2;
        std::string said =
            capture_stderr([&] { result = pcap_dump(names, file.get(), 500, 0, 1, 1, nullptr); });
        return result == 0 && content_of(file.get()).empty() && !said.empty() ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
