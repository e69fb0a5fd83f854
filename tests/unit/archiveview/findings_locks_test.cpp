#include <gtest/gtest.h>

#include "tests/unit/archiveview/findings_facts.h"

namespace archiveview {
namespace {

// Threads 413 and 414 have locks that the other one wants.
archive_facts deadlocked_archive() {
    archive_facts facts = healthy_archive();
    core_facts& core = facts.cores[0];
    core.threads.push_back({.tid = 413, .waits_in = "futex", .futex = 0x1000, .owner = 414});
    core.threads.push_back(
        {.tid = 414, .waits_in = "futex", .futex = 0x2000, .owner = 413, .frames = {"pull"}});
    core.deadlocks = {{.tids = {413, 414}, .is_cycle = true}};
    return facts;
}

// Thread 413 waits for a lock of 999, which has ended.
archive_facts orphaned_archive() {
    archive_facts facts = healthy_archive();
    core_facts& core = facts.cores[0];
    core.threads.push_back(
        {.tid = 413, .waits_in = "futex", .futex = 0x1000, .owner = 999, .owner_ended = true});
    core.deadlocks = {{.tids = {413}, .is_cycle = false}};
    return facts;
}

TEST(findings_deadlock, threads_that_wait_for_one_another_are_one) {
    const archive_facts facts = deadlocked_archive();
    EXPECT_EQ(verdict(facts, "deadlock"), "412 critical");
    const finding deadlock = found(facts, "deadlock");
    EXPECT_EQ(deadlock.text, "Threads 413 and 414 of encoderd (412) wait for locks of one another.");
    EXPECT_EQ(deadlock.proof[0].text, "thread 413 waits for the lock at 0x1000 of thread 414");
    EXPECT_EQ(deadlock.proof[1].text, "thread 414 waits for the lock at 0x2000 of thread 413, in pull");
    EXPECT_EQ(deadlock.proof[1].place, "core/412");
}

TEST(findings_deadlock, threads_that_ran_between_the_looks_are_none) {
    archive_facts facts = deadlocked_archive();
    suspect_of(&facts)->threads.push_back({413, "worker", 'S', "", 0, 6});
    EXPECT_EQ(verdict(facts, "deadlock"), "nothing");
    suspect_of(&facts)->threads.back().ticks_between = 2;  // being dumped costs a little
    EXPECT_EQ(verdict(facts, "deadlock"), "412 critical");
}

TEST(findings_deadlock, a_lock_whose_owner_has_ended_is_one) {
    const archive_facts facts = orphaned_archive();
    EXPECT_EQ(verdict(facts, "deadlock"), "412 critical");
    EXPECT_EQ(found(facts, "deadlock").text,
              "Thread 413 of encoderd (412) waits for a lock whose owner has ended.");
}

TEST(findings_deadlock, a_lock_that_a_living_process_shares_is_none) {
    archive_facts facts = orphaned_archive();
    facts.processes.get(998)->threads.push_back({999, "peer", 'S', "", 0, 0});
    EXPECT_EQ(verdict(facts, "deadlock"), "nothing");
}

TEST(findings_deadlock, threads_that_wait_for_events_are_none) {
    archive_facts facts = deadlocked_archive();
    facts.cores[0].deadlocks.clear();
    EXPECT_EQ(verdict(facts, "deadlock"), "nothing");
}

TEST(findings_deadlock, a_thread_that_waits_for_itself_is_one) {
    archive_facts facts = deadlocked_archive();
    facts.cores[0].deadlocks = {{.tids = {413}, .is_cycle = true}};
    EXPECT_EQ(found(facts, "deadlock").text,
              "Thread 413 of encoderd (412) waits for a lock that it has itself.");
}

}  // namespace
}  // namespace archiveview
