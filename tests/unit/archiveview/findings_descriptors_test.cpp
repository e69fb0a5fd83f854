#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

void give_sockets(archive_facts* facts, unsigned count) {
    process_facts* process = suspect_of(facts);
    process->descriptor_bound = 20000;
    process->counts = {.total = count, .socket = count};
    for (unsigned i = 0; i < count; i++) {
        process->descriptors.push_back({static_cast<int>(i), "socket:[1]", 90000 + i});
    }
}

void give_files(archive_facts* facts, unsigned count, const std::string& target) {
    process_facts* process = suspect_of(facts);
    process->descriptor_bound = 20000;
    process->counts = {.total = count, .file = count};
    for (unsigned i = 0; i < count; i++) {
        process->descriptors.push_back({static_cast<int>(i), target, 0});
    }
}

TEST(findings_descriptor_leak, growth_between_the_looks_is_a_leak) {
    archive_facts facts = healthy_archive();
    give_files(&facts, 60, "/dev/null");
    suspect_of(&facts)->descriptor_growth = 40;
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 warning");
    EXPECT_EQ(found(facts, "descriptor-leak").text,
              "encoderd (412) leaks files: it has 60 descriptors open.");
}

TEST(findings_descriptor_leak, a_few_more_descriptors_are_none) {
    archive_facts facts = healthy_archive();
    give_files(&facts, 60, "/dev/null");
    suspect_of(&facts)->descriptor_growth = 15;
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "nothing");
}

TEST(findings_descriptor_leak, new_connections_are_none) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 60);
    suspect_of(&facts)->descriptor_growth = 40;
    for (unsigned i = 0; i < 40; i++) {
        add_socket(&facts, {.protocol = "tcp",
                            .state = "ESTABLISHED",
                            .inode = 90000 + i,
                            .pid = suspect,
                            .in_second_look = true});
    }
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "nothing");
}

TEST(findings_descriptor_leak, a_crowd_of_unused_sockets_is_one_without_two_looks) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 256);
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 warning");
    EXPECT_EQ(found(facts, "descriptor-leak").proof[1].text,
              "256 sockets that are neither bound nor connected");
}

TEST(findings_descriptor_leak, a_small_crowd_that_grows_in_the_trace_is_one) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 60);
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "nothing");
    trace_of(&facts)->by_call["socket"] = {.calls = 20, .errors = 1};
    trace_of(&facts)->by_call["close"] = {.calls = 3, .errors = 1};
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 warning");
    EXPECT_EQ(found(facts, "descriptor-leak").proof[2].text, "17 more were opened than closed in the trace");
}

TEST(findings_descriptor_leak, sockets_that_are_closed_again_in_the_trace_are_none) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 60);
    trace_of(&facts)->by_call["socket"] = {.calls = 20};
    trace_of(&facts)->by_call["close"] = {.calls = 19};
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "nothing");
}

TEST(findings_descriptor_leak, a_crowd_of_connections_is_a_busy_server) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 256);
    for (unsigned i = 0; i < 256; i++) {
        add_socket(&facts, {.protocol = "tcp",
                            .state = "ESTABLISHED",
                            .inode = 90000 + i,
                            .pid = suspect,
                            .in_first_look = true,
                            .in_second_look = true});
    }
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 note");
}

TEST(findings_descriptor_leak, files_with_numbered_names_are_of_one_kind) {
    archive_facts facts = healthy_archive();
    process_facts* process = suspect_of(&facts);
    process->descriptor_bound = 20000;
    process->counts = {.total = 1024, .file = 1024};
    for (int i = 0; i < 1024; i++) {
        process->descriptors.push_back({i, "/tmp/part" + std::to_string(1000 + i), 0});
    }
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 warning");
    EXPECT_EQ(found(facts, "descriptor-leak").proof[1].text, "1024 descriptors of /tmp/part####");
}

TEST(findings_descriptor_leak, rising_counts_of_the_monitor_are_one) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->counts = {.total = 300, .socket = 200, .other = 100};
    suspect_of(&facts)->descriptor_bound = 20000;
    suspect_of(&facts)->monitor = {.descriptor_score = 34, .descriptors = {300, 280, 260, 240}};
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 warning");
}

TEST(findings_descriptor_leak, steady_counts_of_the_monitor_are_a_note) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->counts = {.total = 300, .socket = 200, .other = 100};
    suspect_of(&facts)->descriptor_bound = 20000;
    suspect_of(&facts)->monitor = {.descriptor_score = 34, .descriptors = {300, 300, 260, 240}};
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 note");
}

TEST(findings_descriptor_leak, counts_of_a_monitor_that_has_just_begun_do_not_rise) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->counts = {.total = 300, .socket = 200, .other = 100};
    suspect_of(&facts)->descriptor_bound = 20000;
    suspect_of(&facts)->monitor = {.descriptor_score = 34, .descriptors = {300, 0, 0, 0}};
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 note");
}

TEST(findings_descriptor_leak, near_the_limit_it_is_critical) {
    archive_facts facts = healthy_archive();
    give_files(&facts, 60, "/dev/null");
    suspect_of(&facts)->descriptor_bound = 64;
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 critical");
    suspect_of(&facts)->descriptor_bound = 256;
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "nothing");
}

TEST(findings_descriptor_leak, refused_descriptors_are_critical) {
    archive_facts facts = healthy_archive();
    trace_of(&facts)->by_errno["EMFILE"] = 1;
    EXPECT_EQ(verdict(facts, "descriptor-leak"), "412 critical");
}

TEST(findings_descriptor_leak, of_closed_connections_comes_before_close_wait) {
    archive_facts facts = healthy_archive();
    give_sockets(&facts, 300);
    for (unsigned i = 0; i < 300; i++) {
        add_socket(&facts, {.protocol = "tcp",
                            .state = "CLOSE_WAIT",
                            .inode = 90000 + i,
                            .pid = suspect,
                            .in_first_look = true,
                            .in_second_look = true});
    }
    EXPECT_EQ(ids(facts), "descriptor-leak ");
}

}  // namespace
}  // namespace archiveview
