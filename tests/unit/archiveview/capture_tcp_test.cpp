// What captures say of TCP.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/archiveview/frames.h"
#include "tools/archiveview/facts/capture.h"

using namespace archiveview;
using namespace frames;

namespace {

// The frames of one connection, each packet with a number of its own.
class connection {
public:
    connection& client(double ms, segment s, std::string_view data = "") {
        return add(ms, {1, 2, ++id_}, s, data);
    }
    connection& server(double ms, segment s, std::string_view data = "") {
        std::swap(s.from, s.to);
        return add(ms, {2, 1, ++id_}, s, data);
    }
    // The last frame, as another interface shows it.
    connection& again(double ms) {
        capture_.add(ms, last_);
        return *this;
    }
    capture_facts facts() const {
        capture_facts facts;
        capture_parse(&facts, capture_.text());
        return facts;
    }
    conversation only() const {
        const capture_facts found = facts();
        EXPECT_EQ(found.conversations.size(), 1u);
        return found.conversations.empty() ? conversation() : found.conversations[0];
    }

private:
    connection& add(double ms, const packet& p, const segment& s, std::string_view data) {
        last_ = ipv4(p, tcp_number, tcp(s, data));
        capture_.add(ms, last_);
        return *this;
    }

    uint16_t id_ = 0;
    std::string last_;
    capture capture_;
};

segment at(uint32_t sequence, uint32_t acknowledged = 0) {
    segment s;
    s.sequence = sequence;
    s.acknowledged = acknowledged;
    return s;
}

segment with(segment s, uint8_t flags) {
    s.flags = flags;
    return s;
}

}  // namespace

TEST(archiveview_capture_tcp, counts_a_healthy_connection_as_one_connect_and_one_accept) {
    const conversation found = connection()
                                   .client(0, with(at(99), syn))
                                   .server(1, with(at(499, 100), syn | ack))
                                   .client(2, at(100, 500))
                                   .client(3, at(100, 500), "hello")
                                   .server(4, at(500, 105), "world")
                                   .client(5, with(at(105, 505), fin | ack))
                                   .server(6, with(at(505, 106), fin | ack))
                                   .client(7, at(106, 506))
                                   .only();
    EXPECT_EQ(found.connects, 1u);
    EXPECT_EQ(found.accepts, 1u);
    EXPECT_EQ(found.retransmissions, 0u);
    EXPECT_EQ(found.resets + found.refusals + found.zero_windows, 0u);
    EXPECT_EQ(found.packets, 8u);
}

TEST(archiveview_capture_tcp, counts_data_that_is_sent_again) {
    const conversation found = connection()
                                   .client(0, at(100), "hello")
                                   .client(1, at(105), "world")
                                   .client(250, at(100), "hello")
                                   .client(300, at(110), "again")
                                   .client(700, with(at(115), fin | ack))
                                   .client(900, with(at(115), fin | ack))
                                   .only();
    EXPECT_EQ(found.retransmissions, 2u);
}

TEST(archiveview_capture_tcp, counts_sequence_numbers_that_wrap_around) {
    const conversation found = connection()
                                   .client(0, at(0xfffffffe), "hello")
                                   .client(1, at(3), "world")
                                   .client(250, at(0xfffffffe), "hello")
                                   .only();
    EXPECT_EQ(found.retransmissions, 1u);
}

TEST(archiveview_capture_tcp, takes_another_view_of_a_frame_for_no_retransmission) {
    const conversation found = connection()
                                   .client(0, with(at(99), syn))
                                   .again(0.01)
                                   .client(1, at(100), "hello")
                                   .again(1.01)
                                   .server(2, with(at(500, 105), ack))
                                   .again(2.01)
                                   .server(3, with(at(500, 105), rst | ack))
                                   .again(3.01)
                                   .only();
    EXPECT_EQ(found.packets, 8u) << "as other tools count";
    EXPECT_EQ(found.connects, 1u);
    EXPECT_EQ(found.retransmissions, 0u);
    EXPECT_EQ(found.resets, 1u);
}

TEST(archiveview_capture_tcp, takes_the_pieces_of_a_large_segment_for_no_retransmission) {
    const std::string data(3000, 'x');
    const conversation found = connection()
                                   .client(0, at(100), data)
                                   .client(0.02, at(100), data.substr(0, 1500))
                                   .client(0.04, at(1600), data.substr(0, 1500))
                                   .only();
    EXPECT_EQ(found.retransmissions, 0u);
}

TEST(archiveview_capture_tcp, takes_keep_alives_for_no_retransmission) {
    const conversation found =
        connection().client(0, at(100), "hello").client(1000, at(104)).client(2000, at(104), "o").only();
    EXPECT_EQ(found.retransmissions, 0u);
}

TEST(archiveview_capture_tcp, counts_data_that_fills_a_gap_late_but_not_data_that_was_reordered) {
    const conversation late = connection()
                                  .client(0, at(100), "hello")
                                  .client(1, at(110), "world")
                                  .client(30, at(105), "great")
                                  .only();
    EXPECT_EQ(late.retransmissions, 1u);
    const conversation reordered = connection()
                                       .client(0, at(100), "hello")
                                       .client(1, at(110), "world")
                                       .client(1.1, at(105), "great")
                                       .only();
    EXPECT_EQ(reordered.retransmissions, 0u);
    const conversation fast = connection()
                                  .client(0, at(100), "hello")
                                  .client(1, at(110), "world")
                                  .server(1.1, at(500, 105))
                                  .server(1.2, at(500, 105))
                                  .server(1.3, at(500, 105))
                                  .client(1.5, at(105), "great")
                                  .only();
    EXPECT_EQ(fast.retransmissions, 1u) << "the receiver has asked for it";
}

TEST(archiveview_capture_tcp, tells_refused_from_unanswered_from_reset_connections) {
    const conversation refused =
        connection().client(0, with(at(99), syn)).server(1, with(at(0, 100), rst | ack)).only();
    EXPECT_EQ(refused.refusals, 1u);
    EXPECT_EQ(refused.resets, 0u);
    const conversation unanswered =
        connection().client(0, with(at(99), syn)).client(1000, with(at(99), syn)).only();
    EXPECT_EQ(unanswered.connects, 2u);
    EXPECT_EQ(unanswered.accepts + unanswered.refusals + unanswered.retransmissions, 0u);
    const conversation reset = connection()
                                   .client(0, with(at(99), syn))
                                   .server(1, with(at(499, 100), syn | ack))
                                   .client(2, with(at(100), rst))
                                   .only();
    EXPECT_EQ(reset.resets, 1u);
    EXPECT_EQ(reset.refusals, 0u);
}

TEST(archiveview_capture_tcp, takes_an_unreachable_port_for_a_refusal) {
    const std::string question = ipv4({}, tcp_number, tcp(with(at(99), syn)));
    const std::string answer =
        ipv4({2, 1, 9}, icmp, number(0x0303, 2) + std::string(6, '\0') + question.substr(14, 28));
    capture_facts facts;
    capture_parse(&facts, capture().add(0, question).add(1, answer).text());
    ASSERT_EQ(facts.conversations.size(), 2u);
    const auto found = std::ranges::find(facts.conversations, "tcp", &conversation::protocol);
    EXPECT_EQ(found->refusals, 1u);
}

TEST(archiveview_capture_tcp, counts_zero_windows) {
    segment closed = at(500, 105);
    closed.window = 0;
    const conversation found =
        connection().client(0, at(100), "hello").server(1, closed).again(1.01).server(500, closed).only();
    EXPECT_EQ(found.zero_windows, 2u);
}

TEST(archiveview_capture_tcp, begins_a_new_conversation_if_ports_are_used_again) {
    const capture_facts facts = connection()
                                    .client(0, with(at(99), syn))
                                    .server(1, with(at(0, 100), rst | ack))
                                    .client(500, with(at(5000), syn))
                                    .server(501, with(at(0, 5001), rst | ack))
                                    .facts();
    ASSERT_EQ(facts.conversations.size(), 2u);
    EXPECT_EQ(facts.conversations[0].refusals, 1u);
    EXPECT_EQ(facts.conversations[1].refusals, 1u);
}
