#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

socket_facts listener(uint64_t waiting) {
    return {.protocol = "tcp",
            .local = "0.0.0.0:80",
            .remote = "0.0.0.0:0",
            .state = "LISTEN",
            .pid = suspect,
            .receive_queue = waiting,
            .in_first_look = true,
            .in_second_look = true};
}

void add_overflows(archive_facts* facts, uint64_t count) {
    facts->looks[0].protocols["TcpExt.ListenOverflows"] = 7;
    facts->looks[1].protocols["TcpExt.ListenOverflows"] = 7 + count;
}

TEST(findings_listen_queue_full, connections_that_found_no_place_are_the_servers_fault) {
    archive_facts facts = healthy_archive();
    add_socket(&facts, listener(2));
    add_overflows(&facts, 3);
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "412 warning");
    EXPECT_EQ(found(facts, "listen-queue-full").text,
              "encoderd (412) does not accept connections at 0.0.0.0:80: 2 wait.");
}

TEST(findings_listen_queue_full, an_empty_queue_has_not_overflowed) {
    archive_facts facts = healthy_archive();
    add_socket(&facts, listener(0));
    add_overflows(&facts, 3);
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "nothing");
}

TEST(findings_listen_queue_full, old_overflows_do_not_count) {
    archive_facts facts = healthy_archive();
    add_socket(&facts, listener(1));
    add_overflows(&facts, 0);
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "nothing");
}

TEST(findings_listen_queue_full, a_server_that_never_accepts_is_one) {
    archive_facts facts = healthy_archive();
    add_socket(&facts, listener(3));
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "412 warning");
    trace_of(&facts)->by_call["accept4"].calls = 1;
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "nothing");
}

TEST(findings_listen_queue_full, the_limit_counts_if_it_is_known) {
    archive_facts facts = healthy_archive();
    add_socket(&facts, listener(3));
    facts.sockets.sockets[0].send_queue = 128;
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "nothing");
    facts.sockets.sockets[0].receive_queue = 128;
    EXPECT_EQ(verdict(facts, "listen-queue-full"), "412 warning");
}

void add_closed_by_peer(archive_facts* facts, int count, bool in_first_look) {
    for (int i = 0; i < count; i++) {
        add_socket(facts, {.protocol = "tcp",
                           .state = "CLOSE_WAIT",
                           .pid = suspect,
                           .in_first_look = in_first_look,
                           .in_second_look = true});
    }
}

TEST(findings_close_wait, several_in_both_looks_are_forgotten) {
    archive_facts facts = healthy_archive();
    add_closed_by_peer(&facts, 5, true);
    EXPECT_EQ(verdict(facts, "close-wait"), "412 warning");
}

TEST(findings_close_wait, one_is_a_note) {
    archive_facts facts = healthy_archive();
    add_closed_by_peer(&facts, 1, true);
    EXPECT_EQ(verdict(facts, "close-wait"), "412 note");
}

TEST(findings_close_wait, those_of_one_look_are_none) {
    archive_facts facts = healthy_archive();
    add_closed_by_peer(&facts, 9, false);
    EXPECT_EQ(verdict(facts, "close-wait"), "nothing");
}

// Process 500 sends to the suspect, which does not read.
archive_facts stuck_archive() {
    archive_facts facts = healthy_archive();
    *facts.processes.get(500) = *suspect_of(&facts);
    facts.processes.get(500)->name = "streamer";
    add_socket(&facts, {.protocol = "tcp",
                        .local = "127.0.0.1:80",
                        .remote = "127.0.0.1:4000",
                        .state = "ESTABLISHED",
                        .pid = 500,
                        .send_queue = 100000,
                        .in_first_look = true,
                        .in_second_look = true});
    add_socket(&facts, {.protocol = "tcp",
                        .local = "127.0.0.1:4000",
                        .remote = "127.0.0.1:80",
                        .state = "ESTABLISHED",
                        .pid = suspect,
                        .receive_queue = 60000,
                        .in_first_look = true,
                        .in_second_look = true});
    return facts;
}

conversation between(const char* a, const char* b, uint64_t bytes) {
    conversation one;
    one.protocol = "tcp";
    one.a = a;
    one.b = b;
    one.bytes = bytes;
    one.packets = bytes / 1000 + 1;
    return one;
}

TEST(findings_send_queue_stuck, the_reader_is_to_blame) {
    archive_facts facts = stuck_archive();
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "412 warning");
    EXPECT_EQ(found(facts, "send-queue-stuck").text,
              "encoderd (412) does not read: 100000 bytes wait at the other end.");
}

TEST(findings_send_queue_stuck, a_reader_elsewhere_leaves_the_writer) {
    archive_facts facts = stuck_archive();
    facts.sockets.sockets.pop_back();
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "500 warning");
}

TEST(findings_send_queue_stuck, a_stream_that_flows_is_none) {
    archive_facts facts = stuck_archive();
    facts.capture.conversations = {between("127.0.0.1:4000", "127.0.0.1:80", 50000)};
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "nothing");
    facts.capture.conversations[0].bytes = 500;
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "412 warning");
}

TEST(findings_send_queue_stuck, a_new_connection_is_none) {
    archive_facts facts = stuck_archive();
    facts.sockets.sockets[0].in_first_look = false;
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "nothing");
}

TEST(findings_send_queue_stuck, a_short_message_is_none) {
    archive_facts facts = stuck_archive();
    facts.sockets.sockets[0].send_queue = 300;
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "nothing");
}

TEST(findings_send_queue_stuck, the_download_of_the_archive_is_none) {
    archive_facts facts = stuck_archive();
    facts.processes.get(500)->name = "webfront";
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "nothing");
}

TEST(findings_send_queue_stuck, with_a_full_capture_the_readers_queue_tells) {
    archive_facts facts = stuck_archive();
    facts.capture.is_full = true;
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "412 warning");
    facts.sockets.sockets[1].receive_queue = 0;
    EXPECT_EQ(verdict(facts, "send-queue-stuck"), "nothing");
}

}  // namespace
}  // namespace archiveview
