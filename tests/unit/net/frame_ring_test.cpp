#include "net/frame_ring.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <poll.h>

#include <string>
#include <vector>

#include "tests/unit/net/private_network.h"
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

    std::vector<std::string> take(int room = 64) {
        fetched_frames fetched = frame_ring_fetch(ring, frames, room);
        EXPECT_FALSE(fetched.ended);
        std::vector<std::string> all;
        for (int i = 0; i < fetched.count; i++) {
            all.emplace_back(reinterpret_cast<const char*>(frames[i].bytes), frames[i].length);
        }
        frame_ring_release(&ring, fetched.count);
        return all;
    }
    bool is_readable() const {
        pollfd wait = {sock.get(), POLLIN, 0};
        return poll(&wait, 1, 0) == 1;
    }
};

using frame_list = std::vector<std::string>;

}  // namespace

NETWORK_TEST(frame_ring, frames_come_whole_and_in_order) {
    ring_reader reader;
    EXPECT_EQ(reader.take(), frame_list{});
    EXPECT_FALSE(reader.is_readable());
    frame_list sent = {frame_of(60, 'a'), frame_of(1514, 'b'), frame_of(14, 'c')};
    frame_sender wire("far0");
    for (const std::string& frame : sent) {
        wire.send(frame);
    }
    EXPECT_TRUE(reader.is_readable());
    EXPECT_EQ(reader.take(), sent);
    EXPECT_FALSE(reader.is_readable());
}

NETWORK_TEST(frame_ring, what_there_is_no_room_for_stays) {
    ring_reader reader;
    frame_sender wire("far0");
    for (char fill : {'a', 'b', 'c'}) {
        wire.send(frame_of(60, fill));
    }
    EXPECT_EQ(reader.take(2), (frame_list{frame_of(60, 'a'), frame_of(60, 'b')}));
    EXPECT_TRUE(reader.is_readable());
    EXPECT_EQ(reader.take(2), frame_list{frame_of(60, 'c')});
}

NETWORK_TEST(frame_ring, goes_round_many_times) {
    ring_reader reader(1);  // the smallest there is
    frame_sender wire("far0");
    for (int i = 0; i < 1000; i++) {
        frame_list sent;
        for (int j = 0; j < i % 7; j++) {
            sent.push_back(frame_of(60 + static_cast<size_t>(i), static_cast<char>(i + j)));
            wire.send(sent.back());
        }
        ASSERT_EQ(reader.take(), sent) << i;
    }
}

NETWORK_TEST(frame_ring, frames_are_lost_when_it_is_full_and_come_again_afterwards) {
    ring_reader reader(1);
    frame_sender wire("far0");
    for (unsigned i = 0; i < reader.ring.slots + 10; i++) {
        wire.send(frame_of(60, 'x'));
    }
    EXPECT_EQ(reader.take().size(), reader.ring.slots);
    wire.send(frame_of(60, 'y'));
    EXPECT_EQ(reader.take(), frame_list{frame_of(60, 'y')});
}

NETWORK_TEST(frame_ring, fetching_alone_releases_nothing) {
    ring_reader reader;
    frame_sender("far0").send(frame_of(60, 'a'));
    EXPECT_EQ(frame_ring_fetch(reader.ring, reader.frames, 5).count, 1);
    EXPECT_EQ(reader.take(), frame_list{frame_of(60, 'a')});
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
