#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

conversation attempt(uint64_t connects, int pid) {
    conversation one;
    one.protocol = "tcp";
    one.a = "192.0.2.2:40000";
    one.b = "192.0.2.9:80";
    one.packets = one.connects = connects;
    one.pid = pid;
    return one;
}

archive_facts with(const std::vector<conversation>& conversations) {
    archive_facts facts = healthy_archive();
    facts.device.addresses = {"eth0 192.0.2.2/24"};
    facts.capture.conversations = conversations;
    return facts;
}

TEST(findings_connect_unanswered, attempts_without_an_answer_are_one) {
    const archive_facts facts = with({attempt(2, suspect)});
    EXPECT_EQ(verdict(facts, "connect-unanswered"), "412 warning");
    EXPECT_EQ(found(facts, "connect-unanswered").text,
              "192.0.2.9:80 does not answer the connection attempts of encoderd (412).");
}

TEST(findings_connect_unanswered, one_attempt_is_too_early_to_tell) {
    EXPECT_EQ(verdict(with({attempt(1, suspect)}), "connect-unanswered"), "nothing");
}

TEST(findings_connect_unanswered, attempts_from_several_ports_add_up) {
    conversation second = attempt(1, suspect);
    second.a = "192.0.2.2:40001";
    EXPECT_EQ(verdict(with({attempt(1, suspect), second}), "connect-unanswered"), "412 warning");
}

TEST(findings_connect_unanswered, answered_and_refused_attempts_are_none) {
    conversation one = attempt(3, suspect);
    one.accepts = 1;
    EXPECT_EQ(verdict(with({one}), "connect-unanswered"), "nothing");
    one.accepts = 0;
    one.refusals = 1;
    EXPECT_EQ(verdict(with({one}), "connect-unanswered"), "nothing");
}

TEST(findings_connect_unanswered, of_unknown_processes_is_a_note) {
    EXPECT_EQ(verdict(with({attempt(3, 0)}), "connect-unanswered"), "0 note");
}

TEST(findings_connect_unanswered, a_socket_that_waits_at_both_looks_is_one_without_a_capture) {
    archive_facts facts = with({});
    add_socket(&facts, {.protocol = "tcp",
                        .local = "192.0.2.2:40000",
                        .remote = "192.0.2.9:80",
                        .state = "SYN_SENT",
                        .pid = suspect,
                        .in_first_look = true,
                        .in_second_look = true});
    EXPECT_EQ(verdict(facts, "connect-unanswered"), "412 warning");
    facts.sockets.sockets[0].in_first_look = false;
    EXPECT_EQ(verdict(facts, "connect-unanswered"), "nothing");
}

TEST(findings_connect_unanswered, a_server_here_with_a_full_queue_is_its_own_finding) {
    archive_facts facts = with({attempt(3, suspect)});
    facts.capture.conversations[0].b = "127.0.0.1:80";
    EXPECT_EQ(verdict(facts, "connect-unanswered"), "412 warning");
    add_socket(&facts, {.protocol = "tcp",
                        .local = "0.0.0.0:80",
                        .state = "LISTEN",
                        .receive_queue = 1,
                        .in_first_look = true,
                        .in_second_look = true});
    EXPECT_EQ(verdict(facts, "connect-unanswered"), "nothing");
}

conversation refused(int port, int pid) {
    conversation one = attempt(1, pid);
    one.a = "192.0.2.2:" + std::to_string(port);
    one.refusals = 1;
    return one;
}

TEST(findings_connect_refused, again_and_again_is_one) {
    const archive_facts facts = with({refused(1, 0), refused(2, suspect), refused(3, 0)});
    EXPECT_EQ(verdict(facts, "connect-refused"), "412 warning");
    EXPECT_EQ(found(facts, "connect-refused").text,
              "encoderd (412) connects again and again to 192.0.2.9:80, which refuses.");
}

TEST(findings_connect_refused, twice_is_none) {
    EXPECT_EQ(verdict(with({refused(1, 0), refused(2, suspect)}), "connect-refused"), "nothing");
}

TEST(findings_connect_refused, the_trace_tells_who_it_was) {
    archive_facts facts = with({refused(1, 0), refused(2, 0), refused(3, 0)});
    trace_of(&facts)->by_call["connect"] = {.calls = 3, .errors = 3};
    trace_of(&facts)->by_errno["ECONNREFUSED"] = 3;
    EXPECT_EQ(verdict(facts, "connect-refused"), "412 warning");
}

TEST(findings_connect_refused, by_a_local_service_shows_in_the_trace_only) {
    archive_facts facts = with({});
    trace_of(&facts)->by_call["connect"] = {.calls = 3, .errors = 3};
    trace_of(&facts)->by_errno["ECONNREFUSED"] = 3;
    EXPECT_EQ(verdict(facts, "connect-refused"), "412 warning");
    trace_of(&facts)->by_errno["ECONNREFUSED"] = 2;
    EXPECT_EQ(verdict(facts, "connect-refused"), "nothing");
}

TEST(findings_connect_refused, attempts_of_others_are_a_note) {
    conversation one = refused(1, 0);
    one.a = "192.0.2.77:5000";
    one.b = "192.0.2.2:22";
    one.refusals = 3;
    EXPECT_EQ(verdict(with({one}), "connect-refused"), "0 note");
}

TEST(findings_connect_refused, to_the_port_of_the_web_front_is_none) {
    archive_facts facts = with({refused(1, 0), refused(2, suspect), refused(3, 0)});
    facts.processes.get(9)->name = "webfront";
    add_socket(&facts, {.protocol = "tcp", .local = "0.0.0.0:80", .state = "LISTEN", .pid = 9});
    EXPECT_EQ(verdict(facts, "connect-refused"), "nothing");
}

conversation stream(uint64_t packets, uint64_t retransmissions) {
    conversation one = attempt(1, suspect);
    one.accepts = 1;
    one.packets = packets;
    one.retransmissions = retransmissions;
    return one;
}

TEST(findings_retransmissions, many_in_one_conversation_are_a_lossy_link) {
    EXPECT_EQ(verdict(with({stream(400, 10)}), "retransmissions"), "412 warning");
    EXPECT_EQ(verdict(with({stream(600, 10)}), "retransmissions"), "412 note");
    EXPECT_EQ(verdict(with({stream(400, 2)}), "retransmissions"), "nothing");
}

TEST(findings_retransmissions, repeated_attempts_to_connect_are_none) {
    conversation one = attempt(3, suspect);
    one.retransmissions = 3;
    EXPECT_EQ(verdict(with({one}), "retransmissions"), "nothing");
}

TEST(findings_retransmissions, probes_of_a_closed_window_are_no_loss) {
    conversation one = stream(20, 10);
    one.zero_windows = 10;
    EXPECT_EQ(verdict(with({one}), "retransmissions"), "412 note");
}

TEST(findings_resets, many_between_two_ends_are_a_warning) {
    conversation one = stream(100, 0);
    one.resets = 50;
    EXPECT_EQ(verdict(with({one}), "resets"), "412 warning");
    one.resets = 49;
    EXPECT_EQ(verdict(with({one}), "resets"), "412 note");
    one.resets = 4;
    EXPECT_EQ(verdict(with({one}), "resets"), "nothing");
}

}  // namespace
}  // namespace archiveview
