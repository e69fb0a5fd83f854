#include "tools/archiveview/facts/core_locks.h"

#include <gtest/gtest.h>

#include "tests/unit/archiveview/core_bytes.h"

namespace archiveview {
namespace {

using namespace core_test;

constexpr uint64_t futex = 202, wait_private = 0x80, wait_bitset = 0x189, wait_shared_bitset = 0x109;
constexpr uint64_t lock_pi = 0x86;
constexpr uint64_t first_lock = 0x5000, second_lock = 0x6000, third_lock = 0x7000;

std::string mutex_of(int owner, uint32_t word = 2, int count = 0, int users = 1, int kind = 0,
                     unsigned machine = EM_X86_64) {
    std::string bytes(40, '\0');
    put(&bytes, 0, word);
    put(&bytes, 4, count);
    put(&bytes, 8, owner);
    put(&bytes, machine == EM_MIPS ? 16 : 12, users);
    put(&bytes, machine == EM_MIPS ? 12 : 16, kind);
    return bytes;
}

test_thread waiting(int tid, uint64_t lock, uint64_t timeout = 0) {
    return in_call(tid, futex, lock, wait_private, 2, timeout);
}

std::vector<std::vector<int>> cycles_of(const core_facts& facts) {
    std::vector<std::vector<int>> found;
    for (const core_deadlock& each : facts.deadlocks) {
        if (each.is_cycle) {
            found.push_back(each.tids);
        }
    }
    return found;
}

TEST(core_locks, two_threads_that_wait_for_each_other_are_one_deadlock) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, 7), waiting(8, first_lock), waiting(9, second_lock)};
    core.memory = {{first_lock, mutex_of(9)}, {second_lock, mutex_of(8)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[1].futex, first_lock);
    EXPECT_EQ(facts.threads[1].owner, 9);
    EXPECT_FALSE(facts.threads[1].owner_ended);
    EXPECT_EQ(cycles_of(facts), (std::vector<std::vector<int>>{{8, 9}}));
    EXPECT_EQ(facts.deadlocks.size(), 1u);
}

TEST(core_locks, cycle_of_three_is_found_once_and_without_those_who_wait_for_it) {
    test_core core(EM_X86_64);
    core.threads = {waiting(6, first_lock), waiting(7, first_lock), waiting(8, second_lock),
                    waiting(9, third_lock)};
    core.memory = {{first_lock, mutex_of(8)}, {second_lock, mutex_of(9)}, {third_lock, mutex_of(7)}};
    EXPECT_EQ(cycles_of(read_core(core)), (std::vector<std::vector<int>>{{8, 9, 7}}));
}

TEST(core_locks, thread_that_waits_for_its_own_lock_is_a_cycle) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock)};
    core.memory = {{first_lock, mutex_of(7)}};
    EXPECT_EQ(cycles_of(read_core(core)), (std::vector<std::vector<int>>{{7}}));
}

TEST(core_locks, wait_for_a_busy_thread_is_no_deadlock) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock), in_call(8, 7)};
    core.memory = {{first_lock, mutex_of(8)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].owner, 8);
    EXPECT_TRUE(facts.deadlocks.empty());
}

TEST(core_locks, wait_with_a_timeout_is_no_deadlock) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock, 0x1000), waiting(8, second_lock)};
    core.memory = {{first_lock, mutex_of(8)}, {second_lock, mutex_of(7)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].owner, 8);
    EXPECT_TRUE(facts.deadlocks.empty());
}

TEST(core_locks, owner_that_is_no_thread_has_ended) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock), waiting(8, second_lock), waiting(9, first_lock)};
    core.memory = {{first_lock, mutex_of(99)}, {second_lock, mutex_of(7)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].owner, 99);
    EXPECT_TRUE(facts.threads[0].owner_ended);
    ASSERT_EQ(facts.deadlocks.size(), 1u);
    EXPECT_FALSE(facts.deadlocks[0].is_cycle);
    EXPECT_EQ(facts.deadlocks[0].tids, (std::vector<int>{8, 7}));
}

TEST(core_locks, robust_mutex_has_its_owner_in_the_word) {
    test_core core(EM_X86_64);
    const uint32_t word = 0x80000000u | 8;
    core.threads = {in_call(7, futex, first_lock, wait_private, word), in_call(8, 7)};
    core.memory = {{first_lock, mutex_of(8, word, 0, 1, 16)}};
    EXPECT_EQ(read_core(core).threads[0].owner, 8);
}

TEST(core_locks, mutex_with_priority_inheritance_has_its_owner_in_the_word) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, futex, first_lock, lock_pi, 0), in_call(8, futex, second_lock, lock_pi, 0)};
    core.memory = {{first_lock, mutex_of(8, 0x80000000u | 8, 0, 1, 32)},
                   {second_lock, mutex_of(7, 0x80000000u | 7, 0, 1, 32)}};
    EXPECT_EQ(cycles_of(read_core(core)), (std::vector<std::vector<int>>{{7, 8}}));
}

TEST(core_locks, owner_of_a_shared_mutex_may_be_another_process) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, futex, first_lock, 0, 2)};
    core.memory = {{first_lock, mutex_of(99, 2, 0, 1, 128)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].owner, 99);
    EXPECT_FALSE(facts.threads[0].owner_ended);
    EXPECT_TRUE(facts.deadlocks.empty());
}

TEST(core_locks, words_that_are_no_mutex_have_no_owner) {
    test_core core(EM_X86_64);
    core.threads = {
        in_call(7, futex, first_lock, wait_bitset, 0),    // a condition variable or a semaphore
        in_call(8, futex, second_lock, wait_private, 2),  // a value of a program's own
        in_call(9, futex, third_lock, wait_private, 2),   // the lock was released meanwhile
        in_call(10, futex, 0x9000, wait_private, 2),      // memory that the core lacks
    };
    core.memory = {
        {first_lock, mutex_of(8, 0)}, {second_lock, mutex_of(99, 2, 5, 17, 0)}, {third_lock, mutex_of(7, 0)}};
    const core_facts facts = read_core(core);
    for (const core_thread& thread : facts.threads) {
        EXPECT_EQ(thread.waits_in, "futex");
        EXPECT_EQ(thread.owner, 0) << thread.tid;
    }
    EXPECT_TRUE(facts.deadlocks.empty());
}

TEST(core_locks, recursive_mutex_is_known_by_its_count) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock), waiting(8, second_lock)};
    core.memory = {{first_lock, mutex_of(99, 2, 3, 1, 1)}, {second_lock, mutex_of(99, 2, 0, 1, 1)}};
    const core_facts facts = read_core(core);
    EXPECT_TRUE(facts.threads[0].owner_ended);
    EXPECT_EQ(facts.threads[1].owner, 0);
}

TEST(core_locks, lock_of_a_stream_names_its_owner_by_its_data) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock), in_call(8, 0)};
    core.threads[1].registers[x86_fs] = 0x7f0012345678;
    std::string lock(24, '\0');
    put(&lock, 0, 2);
    put(&lock, 4, 1);
    put(&lock, 8, uint64_t{0x7f0012345678});
    core.memory = {{first_lock, lock}};
    EXPECT_EQ(read_core(core).threads[0].owner, 8);
}

TEST(core_locks, thread_that_joins_another_can_be_in_a_deadlock) {
    test_core core(EM_X86_64);
    core.threads = {in_call(7, futex, second_lock, wait_shared_bitset, 8), waiting(8, first_lock)};
    core.threads[1].registers[x86_fs] = second_lock - 0x2d0;
    std::string tid(page, '\0');
    put(&tid, 0, 8);
    core.memory = {{first_lock, mutex_of(7)}, {second_lock, tid}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].joins, 8);
    EXPECT_EQ(facts.threads[0].owner, 0);
    EXPECT_EQ(cycles_of(facts), (std::vector<std::vector<int>>{{7, 8}}));
}

TEST(core_locks, mips_wait_is_told_by_its_arguments) {
    test_core core(EM_MIPS);
    core.threads = {in_mips_call(7, first_lock, wait_private, 2),
                    in_mips_call(8, second_lock, wait_private, 2),
                    in_mips_call(9, first_lock, wait_private, 3)};
    core.memory = {{first_lock, mutex_of(8, 2, 0, 1, 0, EM_MIPS)},
                   {second_lock, mutex_of(7, 2, 0, 1, 0, EM_MIPS)}};
    const core_facts facts = read_core(core);
    EXPECT_EQ(facts.threads[0].waits_in, "futex");
    EXPECT_EQ(facts.threads[0].owner, 8);
    EXPECT_EQ(facts.threads[2].waits_in, "a system call");
    EXPECT_EQ(cycles_of(facts), (std::vector<std::vector<int>>{{7, 8}}));
}

TEST(core_locks, mutex_that_lies_in_two_segments_is_read) {
    test_core core(EM_X86_64);
    core.threads = {waiting(7, first_lock), in_call(8, 0)};
    const std::string mutex = mutex_of(8);
    core.memory = {{first_lock, mutex.substr(0, 8)}, {first_lock + 8, mutex.substr(8)}};
    EXPECT_EQ(read_core(core).threads[0].owner, 8);
}

TEST(core_locks, thousands_of_threads_are_read_in_a_moment) {
    test_core core(EM_X86_64);
    for (int i = 0; i < 4000; i++) {
        const uint64_t own = 0x100000 + static_cast<uint64_t>(i) * 64;
        core.threads.push_back(waiting(i + 1, own));
        core.memory[own] = mutex_of((i + 1) % 4000 + 1);
    }
    const core_facts facts = read_core(core);
    ASSERT_EQ(facts.deadlocks.size(), 1u);
    EXPECT_EQ(facts.deadlocks[0].tids.size(), 4000u);
}

}  // namespace
}  // namespace archiveview
