#include "net/frame_ring.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <poll.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/net/private_network.h"
#include "tests/unit/net/times.h"
#include "tests/unit/support/memory_limit.h"

namespace {

void bind_to_near0(int sock) {
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex("near0"));
    EXPECT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

// A socket on near0 with a ring.
struct ring_reader {
    unique_fd sock{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    frame_ring ring;
    captured_frame frames[64];

    explicit ring_reader(size_t bytes = 1 << 20) : ring(frame_ring_open(sock.get(), bytes)) {
        EXPECT_TRUE(ring);
        bind_to_near0(sock.get());
    }

    std::vector<std::string> fetch(int limit = 64) {
        fetched_frames fetched = frame_ring_fetch(&ring, limit, frames);
        EXPECT_FALSE(fetched.has_ended);
        EXPECT_EQ(fetched.is_full, fetched.count == limit);
        std::vector<std::string> all;
        for (int i = 0; i < fetched.count; i++) {
            all.emplace_back(reinterpret_cast<const char*>(frames[i].bytes), frames[i].length);
        }
        return all;
    }
    std::vector<std::string> take(int limit = 64) {
        std::vector<std::string> all = fetch(limit);
        frame_ring_release(&ring);
        return all;
    }
    // Fetches until there are `count` frames; the kernel may deliver them in several blocks.
    std::vector<std::string> take_all(size_t count) {
        std::vector<std::string> all;
        while (all.size() < count && is_readable(10000)) {
            std::vector<std::string> more = take();
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }
    bool is_readable(int patience_ms = 0) const {
        pollfd wait = {sock.get(), POLLIN, 0};
        return poll(&wait, 1, patience_ms) == 1;
    }
};

using frame_list = std::vector<std::string>;

frame_list too_many_for(const ring_reader& reader) {
    frame_list frames(reader.ring.size() / 1514 + 10);
    for (size_t i = 0; i < frames.size(); i++) {
        frames[i] = frame_of(1514, static_cast<char>(i));
    }
    return frames;
}

void send_all(const frame_list& frames) {
    frame_sender wire("far0");
    for (const std::string& frame : frames) {
        wire.send(frame);
    }
}

// True if `got` is the beginning of `sent`, and shorter.
bool is_beginning_of(const frame_list& got, const frame_list& sent) {
    return got.size() < sent.size() && std::equal(got.begin(), got.end(), sent.begin());
}

}  // namespace

NETWORK_TEST(frame_ring, frames_are_complete_and_in_order) {
    ring_reader reader;
    EXPECT_EQ(reader.take(), frame_list{});
    EXPECT_FALSE(reader.is_readable());
    frame_list sent = {frame_of(60, 'a'), frame_of(1514, 'b'), frame_of(14, 'c')};
    send_all(sent);
    EXPECT_EQ(reader.take_all(3), sent);
    EXPECT_FALSE(reader.is_readable());
    EXPECT_EQ(reader.take(), frame_list{});
}

NETWORK_TEST(frame_ring, a_single_frame_is_handed_over_soon) {
    ring_reader reader;
    uint64_t before = now_us();
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(reader.take_all(1), frame_list{frame_of(60, 'a')});
    EXPECT_LT(now_us() - before, 5000000u);
}

NETWORK_TEST(frame_ring, frames_have_the_timestamp_of_their_arrival) {
    ring_reader reader;
    frame_sender wire("far0");
    uint64_t last = now_us();
    for (int i = 0; i < 5; i++) {
        wire.send(frame_of(60, 'a'));
        EXPECT_EQ(reader.take_all(1).size(), 1u);
        EXPECT_GE(time_us(reader.frames[0]), last);
        last = time_us(reader.frames[0]);
        EXPECT_LT(reader.frames[0].time.us, 1000000u);
    }
    EXPECT_LE(last, now_us());
}

NETWORK_TEST(frame_ring, frames_beyond_the_limit_stay) {
    ring_reader reader;
    frame_sender wire("far0");
    for (char fill : {'a', 'b', 'c'}) {
        wire.send(frame_of(60, fill));
    }
    ASSERT_TRUE(reader.is_readable(10000));
    EXPECT_EQ(reader.take(2), (frame_list{frame_of(60, 'a'), frame_of(60, 'b')}));
    EXPECT_TRUE(reader.is_readable());
    EXPECT_EQ(reader.take(2), frame_list{frame_of(60, 'c')});
    EXPECT_FALSE(reader.is_readable());
}

NETWORK_TEST(frame_ring, wraps_around_many_times) {
    ring_reader reader(1);  // the smallest possible
    frame_sender wire("far0");
    for (int i = 0; i < 20; i++) {
        frame_list sent;
        for (int j = 0; j < 30; j++) {  // most of a block, so that some are filled and others are not
            sent.push_back(frame_of(1514 - static_cast<size_t>(i + j), static_cast<char>(i + j)));
            wire.send(sent.back());
        }
        ASSERT_EQ(reader.take_all(sent.size()), sent) << i;
    }
    EXPECT_EQ(reader.ring.oldest, reader.ring.current);
}

NETWORK_TEST(frame_ring, full_ring_loses_frames_and_then_recovers) {
    ring_reader reader(1);
    const frame_list sent = too_many_for(reader);
    send_all(sent);
    frame_list got = reader.take_all(1);
    for (frame_list more = got; !more.empty();) {
        more = reader.take();
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_GT(got.size(), reader.ring.size() / 2048);
    EXPECT_TRUE(is_beginning_of(got, sent));
    send_all({frame_of(60, 'y')});
    EXPECT_EQ(reader.take_all(1), frame_list{frame_of(60, 'y')});
}

NETWORK_TEST(frame_ring, all_blocks_can_be_fetched_before_one_is_released) {
    ring_reader reader(1);
    const frame_list sent = too_many_for(reader);
    send_all(sent);
    ASSERT_TRUE(reader.is_readable(10000));
    frame_list got;
    for (frame_list more = reader.fetch(); !more.empty(); more = reader.fetch()) {
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_GT(got.size(), reader.ring.size() / 2048);
    EXPECT_TRUE(is_beginning_of(got, sent));
    EXPECT_TRUE(reader.is_readable());
    frame_ring_release(&reader.ring);
    send_all({frame_of(60, 'y')});
    EXPECT_EQ(reader.take_all(1).back(), frame_of(60, 'y'));
}

NETWORK_TEST(frame_ring, fetched_frames_stay_until_they_are_released) {
    ring_reader reader;
    frame_sender wire("far0");
    wire.send(frame_of(60, 'a'));
    ASSERT_TRUE(reader.is_readable(10000));
    EXPECT_EQ(reader.fetch(), frame_list{frame_of(60, 'a')});
    captured_frame first = reader.frames[0];
    EXPECT_EQ(reader.fetch(), frame_list{});
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(first.bytes), first.length), frame_of(60, 'a'));
    EXPECT_TRUE(reader.is_readable());
    frame_ring_release(&reader.ring);
    EXPECT_FALSE(reader.is_readable());
}

NETWORK_TEST(frame_ring, long_frame_is_cut_and_keeps_its_length) {
    ASSERT_TRUE(allow_long_frames());
    ring_reader reader;
    send_all({frame_of(5000, 'l')});
    ASSERT_TRUE(reader.is_readable(10000));
    EXPECT_EQ(reader.fetch(), frame_list{frame_of(1536, 'l')});
    EXPECT_EQ(reader.frames[0].wire_length, 5000u);
}

NETWORK_TEST(frame_ring, counts_unfetched_frames) {
    ring_reader reader;
    frame_sender wire("far0");
    for (int i = 0; i < 5; i++) {
        wire.send(frame_of(60, 'a'));
    }
    ASSERT_TRUE(reader.is_readable(10000));
    EXPECT_EQ(reader.take(2).size(), 2u);
    EXPECT_EQ(frame_ring_count_unfetched(reader.ring, reader.sock.get()), 3u);
    EXPECT_EQ(frame_ring_count_unfetched(reader.ring, -1), 0u);
}

NETWORK_TEST(frame_ring, lost_frames_do_not_count_as_unfetched) {
    ring_reader reader(1);
    send_all(too_many_for(reader));
    ASSERT_TRUE(reader.is_readable(10000));
    while (!reader.take().empty()) {
    }
    EXPECT_EQ(frame_ring_count_unfetched(reader.ring, reader.sock.get()), 0u);
}

NETWORK_TEST(frame_ring, thin_traffic_fills_no_ring_within_half_a_minute) {
    ring_reader reader(16 << 20);
    EXPECT_GE(reader.ring.block_count * frame_ring_delay_ms, 30000u);
    frame_sender wire("far0");
    for (char fill : {'a', 'b', 'c'}) {
        uint32_t fetched = reader.ring.fetched;
        wire.send(frame_of(60, fill));
        EXPECT_EQ(reader.take_all(1), frame_list{frame_of(60, fill)});
        EXPECT_EQ(reader.ring.current, reader.ring.fetched) << "a frame took more than a block";
        EXPECT_EQ(reader.ring.fetched, fetched + 1);
    }
}

NETWORK_TEST(frame_ring, holds_the_frames_its_size_was_computed_for) {
    constexpr unsigned burst = 200;
    constexpr int seconds = 2;
    ring_reader reader(frame_ring_size(burst, seconds));
    EXPECT_LT(reader.ring.size(), size_t{burst} * 4096);
    frame_list sent;
    frame_list got;
    // Each of these uses up a block, since nothing is released.
    for (int i = 0; i < seconds * 1000 / frame_ring_delay_ms; i++) {
        sent.push_back(frame_of(60, static_cast<char>(i)));
        send_all({sent.back()});
        EXPECT_TRUE(eventually([&] {
            frame_list more = reader.fetch();
            got.insert(got.end(), more.begin(), more.end());
            return got.size() == sent.size();
        }));
    }
    const frame_list together(burst, frame_of(1514, 'b'));
    send_all(together);
    sent.insert(sent.end(), together.begin(), together.end());
    EXPECT_TRUE(eventually([&] {
        frame_list more = reader.fetch();
        got.insert(got.end(), more.begin(), more.end());
        return got.size() == sent.size();
    }));
    EXPECT_EQ(got, sent);
}

TEST(frame_ring_size, is_small_for_few_frames_and_bounded_for_long_times) {
    EXPECT_LE(frame_ring_size(512000 / 1552, 5), 3u << 19);  // the capture of an archive
    EXPECT_LE(frame_ring_size(1, INT32_MAX), 5u << 20);
    EXPECT_EQ(frame_ring_size(1, -1), frame_ring_size(1, 0));
    EXPECT_GE(frame_ring_size(UINT32_MAX, 0), uint64_t{UINT32_MAX} * pcap_frame_limit);
}

NETWORK_TEST(frame_ring, is_not_mapped_in_children) {
    ring_reader reader;
    EXPECT_EQ(mapped_rings(), 1);
    EXPECT_TRUE(exited_with(run_in_child([] { return mapped_rings(); }), 0));
}

NETWORK_TEST(frame_ring, is_unmapped_at_the_end_of_its_life) {
    frame_ring kept;
    {
        ring_reader reader;
        kept = std::move(reader.ring);
    }
    EXPECT_EQ(mapped_rings(), 1);
    kept = {};
    EXPECT_EQ(mapped_rings(), 0);
}

NETWORK_TEST(frame_ring, third_large_ring_is_refused_until_one_is_closed) {
    constexpr size_t size = 16 << 20;
    ring_reader first(size);
    {
        ring_reader second(size);
        unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        EXPECT_FALSE(frame_ring_open(sock.get(), size));
    }
    ring_reader third(size);
}

NETWORK_TEST(frame_ring, open_returns_an_empty_ring_if_the_kernel_refuses) {
    unique_fd not_a_packet_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    for (int i = 0; i < 40; i++) {  // a failure must not use up what all rings may have
        EXPECT_FALSE(frame_ring_open(not_a_packet_socket.get(), 1 << 20));
    }
    ring_reader reader;
}

NETWORK_TEST(frame_ring, socket_is_readable_after_mapping_has_failed) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr size_t size = 16 << 20;
    unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    {
        ring_reader without_limit(size);  // only the limit makes the next one fail
        scoped_memory_limit limit(size / 2);
        EXPECT_FALSE(frame_ring_open(sock.get(), size));
    }
    bind_to_near0(sock.get());
    frame_sender("far0").send(frame_of(60, 'a'));
    pollfd wait = {sock.get(), POLLIN, 0};
    ASSERT_EQ(poll(&wait, 1, 10000), 1);
    char frame[100];
    ssize_t got = recv(sock.get(), frame, sizeof frame, MSG_DONTWAIT);
    ASSERT_EQ(got, 60);
    EXPECT_EQ(std::string(frame, 60), frame_of(60, 'a'));
}
