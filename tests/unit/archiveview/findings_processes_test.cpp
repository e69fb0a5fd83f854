#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

// Children of the suspect; the last `born` of them only at the second look.
void add_children(archive_facts* facts, int count, int born, char state = 'S') {
    for (int i = 0; i < count; i++) {
        process_facts* child = facts->processes.get(1000 + i);
        child->name = "child";
        child->parent = suspect;
        child->state = state;
        child->in_first_look = i < count - born;
        child->in_second_look = true;
        child->core = 0;
    }
}

TEST(findings_child_runaway, children_that_become_more_and_more_are_one) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 20, 8);
    EXPECT_EQ(verdict(facts, "child-runaway"), "412 warning");
}

TEST(findings_child_runaway, a_steady_pool_of_workers_is_a_note) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 20, 7);
    EXPECT_EQ(verdict(facts, "child-runaway"), "412 note");
}

TEST(findings_child_runaway, a_few_children_are_nothing) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 15, 15);
    EXPECT_EQ(verdict(facts, "child-runaway"), "nothing");
}

TEST(findings_child_runaway, forks_without_a_pause_are_one) {
    archive_facts facts = healthy_archive();
    trace_of(&facts)->by_call["clone"] = {.calls = 600, .errors = 50};
    EXPECT_EQ(verdict(facts, "child-runaway"), "412 warning");
    trace_of(&facts)->by_call["clone"] = {.calls = 600, .errors = 150};
    EXPECT_EQ(verdict(facts, "child-runaway"), "nothing");
}

TEST(findings_child_runaway, a_high_score_of_the_monitor_is_a_note) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->monitor.fork_score = 16;
    EXPECT_EQ(verdict(facts, "child-runaway"), "412 note");
}

TEST(findings_zombies, several_at_both_looks_are_the_parents_fault) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 3, 0, 'Z');
    EXPECT_EQ(verdict(facts, "zombies"), "412 warning");
    EXPECT_EQ(ids(facts), "zombies ");
}

TEST(findings_zombies, children_that_have_just_ended_are_a_note) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 5, 3, 'Z');
    EXPECT_EQ(verdict(facts, "zombies"), "412 note");
}

TEST(findings_zombies, children_that_live_are_none) {
    archive_facts facts = healthy_archive();
    add_children(&facts, 5, 0, 'S');
    EXPECT_EQ(verdict(facts, "zombies"), "nothing");
}

TEST(findings_process_blocked, one_that_makes_no_call_in_state_d_is_blocked) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = 'D';
    suspect_of(&facts)->wait_channel = "nfs_wait";
    facts.trace.by_pid.clear();
    EXPECT_EQ(verdict(facts, "process-blocked"), "412 warning");
    EXPECT_EQ(found(facts, "process-blocked").proof[1].text, "it sleeps in nfs_wait");
}

TEST(findings_process_blocked, one_that_was_seen_reading_is_a_note) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = 'D';
    trace_of(&facts)->calls = 5;
    EXPECT_EQ(verdict(facts, "process-blocked"), "412 note");
    trace_of(&facts)->calls = 0;
    suspect_of(&facts)->cpu_percent = 3;
    EXPECT_EQ(verdict(facts, "process-blocked"), "412 note");
}

TEST(findings_process_blocked, a_parent_that_waits_for_its_vfork_is_a_note) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = 'D';
    trace_of(&facts)->waits_in = "vfork";
    EXPECT_EQ(verdict(facts, "process-blocked"), "412 note");
}

TEST(findings_process_blocked, a_sleeping_process_and_a_kernel_thread_are_not) {
    archive_facts facts = healthy_archive();
    EXPECT_EQ(verdict(facts, "process-blocked"), "nothing");
    suspect_of(&facts)->state = 'D';
    suspect_of(&facts)->is_kernel_thread = true;
    EXPECT_EQ(verdict(facts, "process-blocked"), "nothing");
}

TEST(findings_process_stopped, the_core_tells_it_without_looks) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->state = '?';
    facts.cores[0].state = 'T';
    EXPECT_EQ(verdict(facts, "process-stopped"), "412 warning");
}

TEST(findings_process_stopped, one_that_the_trace_has_resumed_was_stopped) {
    archive_facts facts = healthy_archive();
    suspect_of(&facts)->first_state = 'T';
    EXPECT_EQ(verdict(facts, "process-stopped"), "412 warning");
}

TEST(findings_process_stopped, the_looks_count_more_than_the_core) {
    archive_facts facts = healthy_archive();
    facts.cores[0].state = 'T';  // as the dumper leaves it
    EXPECT_EQ(verdict(facts, "process-stopped"), "nothing");
}

}  // namespace
}  // namespace archiveview
