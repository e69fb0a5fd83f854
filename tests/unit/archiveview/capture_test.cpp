#include "tools/archiveview/facts/capture.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/archiveview/frames.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;
using namespace frames;

namespace {

constexpr size_t capture_bytes = 512000;

capture_facts parsed(std::string_view bytes) {
    capture_facts facts;
    capture_parse(&facts, bytes);
    return facts;
}

capture_facts parsed(const capture& written) {
    return parsed(written.text());
}

std::string udp_frame(std::string_view data = "data") {
    return ipv4({}, udp_number, udp(1000, 2000, data));
}

const conversation* find(const capture_facts& facts, std::string_view protocol) {
    const auto found = std::ranges::find(facts.conversations, protocol, &conversation::protocol);
    return found == facts.conversations.end() ? nullptr : &*found;
}

std::vector<std::string> ends(const capture_facts& facts, std::string_view protocol) {
    const conversation* found = find(facts, protocol);
    return found ? std::vector<std::string>{found->a, found->b} : std::vector<std::string>{};
}

using ends_list = std::vector<std::string>;

}  // namespace

TEST(archiveview_capture, sums_both_directions_of_a_conversation) {
    const std::string there = udp_frame(), back = ipv4({2, 1}, udp_number, udp(2000, 1000, "longer data"));
    const capture_facts facts = parsed(capture().add(0, there).add(250, back).add(1500, there));
    EXPECT_TRUE(facts.is_present);
    EXPECT_EQ(facts.damage, "");
    EXPECT_EQ(facts.packets, 3u);
    EXPECT_EQ(facts.bytes, 2 * there.size() + back.size());
    EXPECT_DOUBLE_EQ(facts.seconds, 1.5);
    ASSERT_EQ(facts.conversations.size(), 1u);
    const conversation& only = facts.conversations[0];
    EXPECT_EQ(only.protocol, "udp");
    EXPECT_EQ(only.a, "10.0.0.1:1000");
    EXPECT_EQ(only.b, "10.0.0.2:2000");
    EXPECT_EQ(only.packets, 3u);
    EXPECT_EQ(only.bytes, facts.bytes);
    EXPECT_DOUBLE_EQ(only.last_seconds, 1.5);
}

TEST(archiveview_capture, names_the_ends_of_each_protocol) {
    const std::string arp_body =
        number(0x0001080006040001, 8) + std::string(6, '\1') + address(1) + std::string(6, '\0') + address(9);
    const capture_facts facts =
        parsed(capture()
                   .add(0, ipv6(1, 2, udp_number, udp(5, 6, "")))
                   .add(0, ipv4({}, icmp, number(0x0800, 2) + std::string(6, '\1')))
                   .add(0, ipv6(1, 2, icmp6, number(0x8000, 2) + std::string(6, '\1')))
                   .add(0, ethernet(0x806, arp_body))
                   .add(0, ipv4({}, 132, "sctp"))
                   .add(0, ipv6(3, 4, 0, number(0x8900010400000000, 8) + "data"))
                   .add(0, ethernet(0x88b5, "test"))
                   .add(0, ethernet(4, "spanning tree")));
    EXPECT_EQ(ends(facts, "udp"), (ends_list{"[2001:db8::1]:5", "[2001:db8::2]:6"}));
    EXPECT_EQ(ends(facts, "icmp"), (ends_list{"10.0.0.1", "10.0.0.2"}));
    EXPECT_EQ(ends(facts, "icmp6"), (ends_list{"2001:db8::1", "2001:db8::2"}));
    EXPECT_EQ(ends(facts, "arp"), (ends_list{"10.0.0.1", "10.0.0.9"}));
    EXPECT_EQ(ends(facts, "132"), (ends_list{"10.0.0.1", "10.0.0.2"}));
    EXPECT_EQ(ends(facts, "137"), (ends_list{"2001:db8::3", "2001:db8::4"})) << "after an option";
    EXPECT_EQ(ends(facts, "0x88b5"), (ends_list{"02:02:02:02:02:02", "02:02:02:02:02:02"}));
    EXPECT_EQ(facts.packets_by_protocol.at("llc"), 1u);
    EXPECT_EQ(facts.packets_by_protocol.size(), 8u);
}

TEST(archiveview_capture, looks_behind_vlan_tags) {
    std::string tagged = udp_frame();
    tagged.insert(12, number(0x81000007, 4));
    EXPECT_EQ(ends(parsed(capture().add(0, tagged)), "udp"), (ends_list{"10.0.0.1:1000", "10.0.0.2:2000"}));
}

TEST(archiveview_capture, counts_a_frame_that_cannot_be_dissected_as_its_ethertype) {
    const std::string bad_ip = ethernet(0x800, "\x45 short");
    const std::string bad_tcp = ipv4({}, tcp_number, "1234567890");
    const capture_facts facts = parsed(capture().add(0, bad_ip).add(1, bad_tcp).add(2, "tiny").add(3, ""));
    EXPECT_EQ(facts.packets, 4u);
    EXPECT_EQ(facts.packets_by_protocol, (std::map<std::string, uint64_t>{{"0x0800", 2}, {"short", 2}}));
}

TEST(archiveview_capture, reads_records_that_are_longer_than_their_frames) {
    const capture_facts facts =
        parsed(capture(1536).add(0, udp_frame()).add(1, udp_frame()).pad(capture_bytes));
    EXPECT_EQ(facts.packets, 2u);
    EXPECT_EQ(facts.bytes, 2 * udp_frame().size());
    EXPECT_FALSE(facts.has_true_lengths);
    EXPECT_FALSE(facts.is_full);
    EXPECT_TRUE(parsed(capture().add(0, udp_frame()).pad(capture_bytes)).has_true_lengths);
}

TEST(archiveview_capture, is_full_if_another_frame_would_not_have_fit) {
    capture full, almost;
    const std::string frame = udp_frame(std::string(1000, 'x'));
    while (full.text().size() + frame.size() + 48 < capture_bytes) {
        almost = full;
        full.add(0, frame);
    }
    EXPECT_TRUE(parsed(full.pad(capture_bytes)).is_full);
    EXPECT_FALSE(parsed(almost.pad(capture_bytes)).is_full);
    EXPECT_FALSE(parsed(full.text().substr(0, capture_bytes / 2)).is_full) << "an archive that was cut";
}

TEST(archiveview_capture, says_why_a_capture_could_not_be_read) {
    const std::string whole = capture().add(0, udp_frame()).add(1, udp_frame()).text();
    EXPECT_EQ(parsed(whole.substr(0, whole.size() - 1)).packets, 1u);
    EXPECT_EQ(parsed(whole.substr(0, whole.size() - 1)).damage, "It ends in the middle of a packet.");
    EXPECT_EQ(parsed(std::string(capture_bytes, '\0')).damage,
              "It holds only zeros: the device could not capture.");
    EXPECT_EQ(parsed("").damage, "It ends before its first packet.");
    EXPECT_EQ(parsed(std::string(100, 'x')).damage, "It is no capture.");
    EXPECT_EQ(parsed(capture().text()).damage, "");
}

TEST(archiveview_capture, reads_a_capture_of_a_big_endian_device) {
    const std::string frame = udp_frame();
    const std::string text = number(0xa1b2c3d400020004, 8) + number(0, 8) + number(65535, 4) + number(1, 4) +
                             number(1000, 4) + number(0, 4) + number(frame.size(), 4) +
                             number(frame.size(), 4) + frame;
    EXPECT_EQ(parsed(text).packets, 1u);
    EXPECT_EQ(parsed(text).damage, "");
}

TEST(archiveview_capture, counts_a_fragmented_packet_with_the_fragment_that_completes_it) {
    const std::string whole = udp(1000, 2000, std::string(40, 'x'));
    const std::string first = ipv4({.id = 7, .fragment = 0x2000}, udp_number, whole.substr(0, 24));
    const std::string last = ipv4({.id = 7, .fragment = 3}, udp_number, whole.substr(24));
    for (const bool is_reversed : {false, true}) {
        const std::string& final = is_reversed ? first : last;
        const capture_facts facts =
            parsed(capture().add(0, is_reversed ? last : first).add(0, final).add(0, udp_frame()));
        EXPECT_EQ(facts.packets_by_protocol, (std::map<std::string, uint64_t>{{"fragment", 1}, {"udp", 2}}));
        EXPECT_EQ(find(facts, "udp")->bytes, final.size() + udp_frame().size());
    }
}

TEST(archiveview_capture, puts_fragments_of_ipv6_together) {
    const std::string whole = udp(1000, 2000, std::string(40, 'x'));
    const auto part = [&](uint16_t where, std::string_view body) {
        return ipv6(1, 2, fragment_header,
                    number(0x1100, 2) + number(where, 2) + number(9, 4) + std::string(body));
    };
    const capture_facts facts =
        parsed(capture().add(0, part(1, whole.substr(0, 24))).add(0, part(24, whole.substr(24))));
    EXPECT_EQ(facts.packets_by_protocol, (std::map<std::string, uint64_t>{{"fragment", 1}, {"udp", 1}}));
    EXPECT_EQ(ends(facts, "udp"), (ends_list{"[2001:db8::1]:1000", "[2001:db8::2]:2000"}));
}

TEST(archiveview_capture, sorts_the_largest_conversation_to_the_front) {
    const capture_facts facts = parsed(
        capture().add(0, udp_frame()).add(0, ipv4({3, 4}, udp_number, udp(1, 2, std::string(100, 'x')))));
    ASSERT_EQ(facts.conversations.size(), 2u);
    EXPECT_EQ(facts.conversations[0].a, "10.0.0.3:1");
}

TEST(archiveview_capture, holds_no_more_conversations_than_its_bound) {
    capture many;
    for (size_t i = 0; i < conversation_limit + 5; i++) {
        const auto port = static_cast<uint16_t>(i);
        many.add(0, ipv4({static_cast<uint8_t>(i >> 16), 1}, udp_number, udp(port, 9, "")));
    }
    const capture_facts facts = parsed(many);
    EXPECT_EQ(facts.conversations.size(), conversation_limit);
    EXPECT_EQ(facts.left_out, 5u);
    EXPECT_EQ(facts.packets, conversation_limit + 5);
}
