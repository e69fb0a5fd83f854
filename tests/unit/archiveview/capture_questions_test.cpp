// Questions for names and neighbours in captures, and the join of captures to processes.
#include <gtest/gtest.h>

#include "tests/unit/archiveview/frames.h"
#include "tools/archiveview/facts/capture.h"

using namespace archiveview;
using namespace frames;

namespace {

capture_facts parsed(const capture& written) {
    capture_facts facts;
    capture_parse(&facts, written.text());
    return facts;
}

std::string dns(uint16_t id, bool is_answer) {
    const std::string name = std::string("\4time\7example", 13) + '\0';
    return number(id, 2) + number(is_answer ? 0x8180 : 0x0100, 2) + number(0x0001000000000000, 8) + name +
           number(0x00010001, 4);
}

std::string question(uint16_t id, uint16_t packet_id) {
    return ipv4({1, 53, packet_id}, udp_number, udp(4000, 53, dns(id, false)));
}

std::string answer(uint16_t id, uint16_t packet_id) {
    return ipv4({53, 1, packet_id}, udp_number, udp(53, 4000, dns(id, true)));
}

std::string arp(bool is_question, uint8_t from, uint8_t to) {
    return ethernet(0x806, number(0x00010800060400, 7) + (is_question ? '\1' : '\2') + std::string(6, '\1') +
                               address(from) + std::string(6, '\0') + address(to));
}

std::string neighbour(bool is_question, uint8_t from, uint8_t to, uint8_t target) {
    return ipv6(from, to, icmp6,
                number(is_question ? 0x8700 : 0x8800, 2) + std::string(6, '\0') + address6(target));
}

}  // namespace

TEST(archiveview_capture_questions, counts_questions_for_names_and_their_answers) {
    const capture_facts facts = parsed(capture()
                                           .add(0, question(1, 1))
                                           .add(0.01, question(1, 1))
                                           .add(1, answer(1, 1))
                                           .add(1.01, answer(1, 1))
                                           .add(500, question(2, 2))
                                           .add(600, answer(3, 2)));
    ASSERT_EQ(facts.dns.size(), 1u);
    EXPECT_EQ(facts.dns[0].name, "time.example");
    EXPECT_EQ(facts.dns[0].server, "10.0.0.53");
    EXPECT_EQ(facts.dns[0].asker, "10.0.0.1:4000");
    EXPECT_EQ(facts.dns[0].questions, 2u);
    EXPECT_EQ(facts.dns[0].answers, 1u);
}

TEST(archiveview_capture_questions, follow_no_name_that_points_at_itself) {
    const std::string head = number(7, 2) + number(0x0100, 2) + number(0x0001000000000000, 8);
    const std::string itself = number(0xc00c, 2) + number(0x00010001, 4);
    const capture_facts facts =
        parsed(capture().add(0, ipv4({1, 53, 1}, udp_number, udp(4000, 53, head + itself))));
    EXPECT_TRUE(facts.dns.empty());
}

TEST(archiveview_capture_questions, ignores_what_is_no_message_of_a_name_server) {
    const capture_facts facts =
        parsed(capture().add(0, ipv4({}, udp_number, udp(4000, 53, "\1\2\1\0\0\1nonsense"))));
    EXPECT_TRUE(facts.dns.empty());
    EXPECT_EQ(facts.packets_by_protocol.at("udp"), 1u);
}

TEST(archiveview_capture_questions, counts_questions_for_addresses_on_the_network_and_their_answers) {
    const capture_facts facts = parsed(capture()
                                           .add(0, arp(true, 1, 9))
                                           .add(1000, arp(true, 1, 9))
                                           .add(1500, arp(true, 1, 8))
                                           .add(1501, arp(false, 8, 1))
                                           .add(2000, arp(true, 1, 1)));
    ASSERT_EQ(facts.arp.size(), 2u);
    EXPECT_EQ(facts.arp[0].name, "10.0.0.9");
    EXPECT_EQ(facts.arp[0].server, "10.0.0.1");
    EXPECT_EQ(facts.arp[0].questions, 2u);
    EXPECT_EQ(facts.arp[0].answers, 0u);
    EXPECT_EQ(facts.arp[1].answers, 1u);
}

TEST(archiveview_capture_questions, counts_neighbour_solicitations) {
    const capture_facts facts = parsed(capture()
                                           .add(0, neighbour(true, 1, 9, 9))
                                           .add(500, neighbour(true, 1, 8, 8))
                                           .add(501, neighbour(false, 8, 1, 8)));
    ASSERT_EQ(facts.arp.size(), 2u);
    EXPECT_EQ(facts.arp[0].name, "2001:db8::9");
    EXPECT_EQ(facts.arp[0].questions, 1u);
    EXPECT_EQ(facts.arp[0].answers, 0u);
    EXPECT_EQ(facts.arp[1].answers, 1u);
}

TEST(archiveview_capture_questions, names_the_process_that_waits_for_an_address) {
    capture_facts facts = parsed(capture().add(0, arp(true, 1, 9)));
    process_list processes;
    processes.get(412)->name = "uploader";
    socket_list sockets;
    socket_facts waiting;
    waiting.remote = "10.0.0.9:80";
    waiting.pid = 412;
    sockets.sockets = {waiting};
    capture_join(&facts, sockets, processes);
    ASSERT_EQ(facts.arp.size(), 1u);
    EXPECT_EQ(facts.arp[0].pid, 412);
    EXPECT_EQ(facts.arp[0].process, "uploader");
}
