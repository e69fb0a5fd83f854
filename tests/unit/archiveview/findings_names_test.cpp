#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

archive_facts asking(const asked_name& asked) {
    archive_facts facts = healthy_archive();
    facts.device.addresses = {"eth0 192.0.2.2/24"};
    facts.capture.dns = {asked};
    return facts;
}

TEST(findings_dns_unanswered, a_server_that_answers_nothing_is_dead) {
    const archive_facts facts = asking({"time.example", "192.0.2.53:53", 2, 0, suspect});
    EXPECT_EQ(verdict(facts, "dns-unanswered"), "412 warning");
    EXPECT_EQ(found(facts, "dns-unanswered").text,
              "The name server 192.0.2.53:53 does not answer encoderd (412).");
    EXPECT_EQ(found(facts, "dns-unanswered").proof[1].text, "no answer for time.example");
}

TEST(findings_dns_unanswered, one_question_is_too_early_to_tell) {
    EXPECT_EQ(verdict(asking({"time.example", "192.0.2.53:53", 1, 0, suspect}), "dns-unanswered"), "nothing");
}

TEST(findings_dns_unanswered, a_server_that_answers_others_is_a_note) {
    archive_facts facts = asking({"time.example", "192.0.2.53:53", 2, 0, suspect});
    facts.capture.dns.push_back({"other.example", "192.0.2.53:53", 1, 1, suspect});
    EXPECT_EQ(verdict(facts, "dns-unanswered"), "412 note");
}

TEST(findings_dns_unanswered, answered_questions_are_none) {
    EXPECT_EQ(verdict(asking({"time.example", "192.0.2.53:53", 4, 4, suspect}), "dns-unanswered"), "nothing");
}

TEST(findings_dns_unanswered, questions_by_multicast_need_no_answer) {
    EXPECT_EQ(verdict(asking({"printer.local", "224.0.0.251:5353", 9, 0, suspect}), "dns-unanswered"),
              "nothing");
    EXPECT_EQ(verdict(asking({"printer", "[ff02::fb]:5353", 9, 0, suspect}), "dns-unanswered"), "nothing");
}

TEST(findings_dns_unanswered, the_socket_to_the_server_tells_who_asks) {
    archive_facts facts = asking({"time.example", "192.0.2.53", 2, 0, 0});
    EXPECT_EQ(verdict(facts, "dns-unanswered"), "0 warning");
    add_socket(&facts,
               {.protocol = "udp", .local = "192.0.2.2:4000", .remote = "192.0.2.53:53", .pid = suspect});
    EXPECT_EQ(verdict(facts, "dns-unanswered"), "412 warning");
}

archive_facts looking_for(const asked_name& asked) {
    archive_facts facts = asking({});
    facts.capture.dns.clear();
    facts.capture.arp = {asked};
    facts.device.routes = {"default via 192.0.2.1 device eth0"};
    return facts;
}

TEST(findings_arp_unanswered, a_silent_neighbour_is_a_note) {
    EXPECT_EQ(verdict(looking_for({"192.0.2.9", "192.0.2.2", 3, 0, suspect}), "arp-unanswered"), "412 note");
    EXPECT_EQ(verdict(looking_for({"192.0.2.9", "192.0.2.2", 2, 0, suspect}), "arp-unanswered"), "nothing");
    EXPECT_EQ(verdict(looking_for({"192.0.2.9", "192.0.2.2", 3, 1, suspect}), "arp-unanswered"), "nothing");
}

TEST(findings_arp_unanswered, a_silent_gateway_is_a_warning) {
    EXPECT_EQ(verdict(looking_for({"192.0.2.1", "192.0.2.2", 3, 0, 0}), "arp-unanswered"), "0 warning");
}

TEST(findings_arp_unanswered, questions_of_others_are_none) {
    EXPECT_EQ(verdict(looking_for({"192.0.2.9", "192.0.2.3", 9, 0, 0}), "arp-unanswered"), "nothing");
}

TEST(findings_arp_unanswered, a_test_whether_an_address_is_free_needs_no_answer) {
    EXPECT_EQ(verdict(looking_for({"192.0.2.2", "0.0.0.0", 3, 0, 0}), "arp-unanswered"), "nothing");
    EXPECT_EQ(verdict(looking_for({"192.0.2.2", "192.0.2.2", 3, 0, 0}), "arp-unanswered"), "nothing");
}

}  // namespace
}  // namespace archiveview
