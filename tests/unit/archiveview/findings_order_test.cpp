#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

TEST(findings, none_in_a_healthy_archive) {
    EXPECT_EQ(ids(healthy_archive()), "");
}

TEST(findings, facts_of_nothing_give_no_finding_on_the_device) {
    EXPECT_EQ(ids(archive_facts()), "archive-damaged ");
}

TEST(findings, the_most_severe_is_first) {
    archive_facts facts = healthy_archive();
    facts.archive.state = archive_state::cut;
    facts.kernel.tainted = 1;
    facts.looks[1].memory_kb["MemAvailable"] = 1000;
    EXPECT_EQ(ids(facts), "memory-low archive-cut kernel-tainted ");
    const std::vector<finding> all = find_all(facts);
    EXPECT_GT(all[0].weight, all[1].weight);
    EXPECT_GT(all[1].weight, all[2].weight);
}

TEST(findings, what_a_stopped_process_does_not_do_is_explained_by_its_stop) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = 'T';
    for (int i = 0; i < 5; i++) {
        add_socket(&facts, {.protocol = "tcp",
                            .state = "CLOSE_WAIT",
                            .pid = suspect,
                            .in_first_look = true,
                            .in_second_look = true});
    }
    EXPECT_EQ(ids(facts), "process-stopped ");
    const finding stopped = found(facts, "process-stopped");
    EXPECT_EQ(stopped.proof.back().text,
              "encoderd (412) does not close 5 connections that the peer has closed.");
}

TEST(findings, of_another_process_are_not_explained) {
    archive_facts facts = healthy_archive();
    process_facts* other = facts.processes.get(500);
    *other = *suspect_of(&facts);
    other->pid = 500;
    other->state = 'T';
    for (int i = 0; i < 5; i++) {
        add_socket(&facts, {.protocol = "tcp",
                            .state = "CLOSE_WAIT",
                            .pid = suspect,
                            .in_first_look = true,
                            .in_second_look = true});
    }
    EXPECT_EQ(ids(facts), "process-stopped close-wait ");
}

TEST(findings, have_a_name_evidence_and_a_next_step) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = 'T';
    const finding stopped = found(facts, "process-stopped");
    EXPECT_EQ(stopped.name, "encoderd");
    EXPECT_EQ(stopped.text, "encoderd (412) is stopped by a signal.");
    ASSERT_FALSE(stopped.proof.empty());
    EXPECT_EQ(stopped.proof[0].place, "process/412");
    EXPECT_TRUE(stopped.next.ends_with('.'));
}

TEST(findings, never_accuse_the_programs_that_make_the_archive) {
    for (const char* name : {"debugar.cgi", "webfront", "dcore"}) {
        archive_facts facts = healthy_archive();
        suspect_of(&facts)->name = name;
        suspect_of(&facts)->state = 'T';
        EXPECT_EQ(ids(facts), "") << name;
    }
}

TEST(findings, never_accuse_children_of_the_daemon) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->parent = 9;
    facts.processes.get(9)->name = "debugar.cgi";
    suspect_of(&facts)->state = 'T';
    EXPECT_EQ(ids(facts), "");
}

TEST(findings, are_bounded_in_number) {
    archive_facts facts = healthy_archive();
    for (int pid = 1000; pid < 2000; pid++) {
        facts.processes.get(pid)->state = 'T';
    }
    EXPECT_EQ(find_all(facts).size(), 200u);
}

}  // namespace
}  // namespace archiveview
