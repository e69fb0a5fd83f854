#include "net/frame_ring.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <poll.h>

#include <algorithm>
#include <string>
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

    explicit ring_reader(size_t bytes = 1 << 20) {
        EXPECT_TRUE(frame_ring_open(&ring, sock.get(), bytes));
        bind_to_near0(sock.get());
    }
    ring_reader(const ring_reader&) = delete;
    ring_reader& operator=(const ring_reader&) = delete;
    ~ring_reader() { frame_ring_close(&ring); }

    std::vector<std::string> fetch(int room = 64) {
        fetched_frames fetched = frame_ring_fetch(&ring, frames, room);
        EXPECT_FALSE(fetched.ended);
        std::vector<std::string> all;
        for (int i = 0; i < fetched.count; i++) {
            all.emplace_back(reinterpret_cast<const char*>(frames[i].bytes), frames[i].length);
        }
        return all;
    }
    std::vector<std::string> take(int room = 64) {
        std::vector<std::string> all = fetch(room);
        frame_ring_release(&ring);
        return all;
    }
    // Takes until there are `count`; the kernel may hand them over in several pieces.
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
    frame_list frames(reader.ring.size / 1514 + 10);
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

// Whether frames are the first ones of those that were sent, but not all.
bool are_first_of(const frame_list& got, const frame_list& sent) {
    return got.size() < sent.size() && std::equal(got.begin(), got.end(), sent.begin());
}

}  // namespace

NETWORK_TEST(frame_ring, frames_come_whole_and_in_order) {
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

NETWORK_TEST(frame_ring, what_there_is_no_room_for_stays) {
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

NETWORK_TEST(frame_ring, goes_round_many_times) {
    ring_reader reader(1);  // the smallest there is
    frame_sender wire("far0");
    for (int i = 0; i < 20; i++) {
        frame_list sent;
        for (int j = 0; j < 30; j++) {  // most of a block, so that some are filled and others are not
            sent.push_back(frame_of(1514 - static_cast<size_t>(i + j), static_cast<char>(i + j)));
            wire.send(sent.back());
        }
        ASSERT_EQ(reader.take_all(sent.size()), sent) << i;
    }
    EXPECT_EQ(reader.ring.first, reader.ring.block);
}

NETWORK_TEST(frame_ring, frames_are_lost_when_it_is_full_and_come_again_afterwards) {
    ring_reader reader(1);
    const frame_list sent = too_many_for(reader);
    send_all(sent);
    frame_list got = reader.take_all(1);
    for (frame_list more = got; !more.empty();) {
        more = reader.take();
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_GT(got.size(), reader.ring.size / 2048);
    EXPECT_TRUE(are_first_of(got, sent));
    send_all({frame_of(60, 'y')});
    EXPECT_EQ(reader.take_all(1), frame_list{frame_of(60, 'y')});
}

NETWORK_TEST(frame_ring, all_blocks_can_be_fetched_before_one_is_given_back) {
    ring_reader reader(1);
    const frame_list sent = too_many_for(reader);
    send_all(sent);
    ASSERT_TRUE(reader.is_readable(10000));
    frame_list got;
    for (frame_list more = reader.fetch(); !more.empty(); more = reader.fetch()) {
        got.insert(got.end(), more.begin(), more.end());
    }
    EXPECT_GT(got.size(), reader.ring.size / 2048);
    EXPECT_TRUE(are_first_of(got, sent));
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

NETWORK_TEST(frame_ring, counts_what_has_not_been_fetched) {
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

NETWORK_TEST(frame_ring, lost_frames_are_not_waited_for) {
    ring_reader reader(1);
    send_all(too_many_for(reader));
    ASSERT_TRUE(reader.is_readable(10000));
    while (!reader.take().empty()) {
    }
    EXPECT_EQ(frame_ring_count_unfetched(reader.ring, reader.sock.get()), 0u);
}

NETWORK_TEST(frame_ring, thin_traffic_fills_none_within_half_a_minute) {
    ring_reader reader(16 << 20);
    EXPECT_GE(reader.ring.blocks * frame_ring_delay_ms, 30000u);
    frame_sender wire("far0");
    for (char fill : {'a', 'b', 'c'}) {
        uint32_t fetched = reader.ring.fetched;
        wire.send(frame_of(60, fill));
        EXPECT_EQ(reader.take_all(1), frame_list{frame_of(60, fill)});
        EXPECT_EQ(reader.ring.block, reader.ring.fetched) << "a frame took more than a block";
        EXPECT_EQ(reader.ring.fetched, fetched + 1);
    }
}

NETWORK_TEST(frame_ring, holds_what_its_size_was_made_for) {
    constexpr unsigned burst = 200;
    constexpr int seconds = 2;
    ring_reader reader(frame_ring_size(burst, seconds));
    EXPECT_LT(reader.ring.size, size_t{burst} * 4096);
    frame_list sent;
    frame_list got;
    // Nothing is released meanwhile, and each of these uses up a block.
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

NETWORK_TEST(frame_ring, children_do_not_have_it) {
    ring_reader reader;
    EXPECT_EQ(mapped_rings(), 1);
    EXPECT_TRUE(exited_with(run_in_child([] { return mapped_rings(); }), 0));
}

NETWORK_TEST(frame_ring, refused_ring_leaves_none) {
    unique_fd no_packet_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    frame_ring ring;
    EXPECT_FALSE(frame_ring_open(&ring, no_packet_socket.get(), 1 << 20));
    EXPECT_EQ(ring.memory, nullptr);
    frame_ring_close(&ring);
}

NETWORK_TEST(frame_ring, frames_of_one_that_can_not_be_mapped_are_read_from_the_socket) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    constexpr size_t size = 16 << 20;
    unique_fd sock(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    frame_ring ring;
    {
        ring_reader with_room(size);  // nothing but the room is missing below
        scoped_memory_limit limit(size / 2);
        EXPECT_FALSE(frame_ring_open(&ring, sock.get(), size));
    }
    EXPECT_EQ(ring.memory, nullptr);
    bind_to_near0(sock.get());
    frame_sender("far0").send(frame_of(60, 'a'));
    pollfd wait = {sock.get(), POLLIN, 0};
    ASSERT_EQ(poll(&wait, 1, 10000), 1);
    char frame[100];
    ssize_t got = recv(sock.get(), frame, sizeof frame, MSG_DONTWAIT);
    ASSERT_EQ(got, 60);
    EXPECT_EQ(std::string(frame, 60), frame_of(60, 'a'));
}
