#include "monitor/sample.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "monitor/process_record.h"
#include "tests/unit/monitor/monitor_round.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"

namespace {

using monitor_history = monitor_round;
using monitor_records = monitor_round;
using monitor_names = monitor_round;
using monitor_crowd = monitor_round;

class monitor_sample_call : public monitor_round {
protected:
    const process_record* record(pid_t of) const {
        void* found = ehash_lookup_e(m->table, &of, sizeof of, offsetof(process_record, node));
        return static_cast<const process_record*>(found);
    }
};

}  // namespace

TEST_F(monitor_sample_call, fills_a_record) {
    tree.add(pid, "holder", other);
    tree.set_fds(pid, {.plain = 12, .sockets = 8, .pipes = 4});
    monitor_sample(m);
    ASSERT_NE(record(pid), nullptr);
    EXPECT_EQ(record(pid)->pid, pid);
    EXPECT_EQ(record(pid)->ppid, other);
    EXPECT_STREQ(record(pid)->name, "holder");
    EXPECT_EQ(record(pid)->seen_round, 1U);
    EXPECT_EQ(record(pid)->fds[0].all, 24);
    EXPECT_EQ(record(pid)->fds[0].sockets, 8);
    EXPECT_EQ(record(pid)->fds[0].pipes, 4);
    EXPECT_EQ(record(pid)->fds[1].all, 0);
    EXPECT_EQ(record(pid)->averages[0].all, 6);
    EXPECT_EQ(record(pid)->averages[0].sockets, 2);
    EXPECT_EQ(record(pid)->averages[0].pipes, 1);
}

TEST_F(monitor_sample_call, counts_children) {
    tree.add(pid, "parent");
    monitor_sample(m);
    m->round++;
    set_children(pid, 3);
    monitor_sample(m);
    EXPECT_EQ(record(pid)->children, 3);
    EXPECT_EQ(record(first_child)->ppid, pid);
    EXPECT_EQ(record(first_child)->children, 0);
}

TEST_F(monitor_sample_call, keeps_the_record_of_a_process_that_is_gone) {
    tree.add(pid, "holder");
    monitor_sample(m);
    tree.remove(pid);
    m->round++;
    monitor_sample(m);
    ASSERT_NE(record(pid), nullptr);
    EXPECT_EQ(record(pid)->seen_round, 1U);
}

TEST_F(monitor_history, has_this_round_and_the_three_before_it) {
    tree.add(pid, "holder");
    for (int count : {1100, 1200, 1300, 1400, 1500}) {
        tree.set_fds(pid, {.plain = count});
        round();
    }
    EXPECT_EQ(status_body(),
              "fdstats for pid=7000000 score=46:\n" + history_lines({1500, 1400, 1300, 1200, 1350, 0, 0, 0}));
}

TEST_F(monitor_history, shifts_the_averages_every_32_rounds) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    rounds(31);
    EXPECT_EQ(status_body(),
              "fdstats for pid=7000000 score=34:\n" + history_lines({1100, 1100, 1100, 1100, 1100, 0, 0, 0}));
    tree.set_fds(pid, {.plain = 1500});
    rounds(1);  // 32
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=46:\n" +
                                 history_lines({1500, 1100, 1100, 1100, 1200, 1100, 0, 0}));
    rounds(31);
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=46:\n" +
                                 history_lines({1500, 1500, 1500, 1500, 1500, 1100, 0, 0}));
    rounds(1);  // 64
    rounds(31);
    tree.set_fds(pid, {.plain = 1300});
    rounds(1);  // 96
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=40:\n" +
                                 history_lines({1300, 1500, 1500, 1500, 1450, 1500, 1500, 1100}));
    rounds(32);  // 128: the oldest drops out
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=40:\n" +
                                 history_lines({1300, 1300, 1300, 1300, 1300, 1300, 1500, 1500}));
}

TEST_F(monitor_records, a_reused_pid_starts_afresh) {
    tree.add(pid, "first");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(rounds(3), fd_line(pid, "first", 34, "+34", 0));
    tree.remove(pid);
    tree.add(pid, "second");
    tree.set_fds(pid, {.plain = 1200});
    EXPECT_EQ(round(), fd_line(pid, "second", 37, "+37", 0));
    EXPECT_EQ(status_body(), first_fd_stats(pid, 37, 1200, 0, 0));
    EXPECT_EQ(known(), 1U);
}

TEST_F(monitor_records, a_reused_pid_with_the_same_name_keeps_its_record) {
    tree.add(pid, "same");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "same", 34, "+34", 0));
    tree.remove(pid);
    tree.add(pid, "same");
    tree.set_fds(pid, {.plain = 1200});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(),
              "fdstats for pid=7000000 score=37:\n" + history_lines({1200, 1100, 0, 0, 575, 0, 0, 0}));
}

TEST_F(monitor_records, a_reused_pid_does_not_inherit_children) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 20);
    EXPECT_EQ(round(), fork_line(pid, "parent", 20, "+20"));
    set_children(pid, 0);
    tree.set_cmdline(pid, "/usr/bin/renamed");
    EXPECT_EQ(round(), "");
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "renamed", 16, "+16"));
}

TEST_F(monitor_records, a_process_that_ended_is_new_when_it_comes_back) {
    tree.add(pid, "holder");
    tree.add(other, "other");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(known(), 2U);
    tree.remove(pid);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    EXPECT_EQ(known(), 1U);
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(status_body(), first_fd_stats(pid, 34, 1100, 0, 0));
}

TEST_F(monitor_records, all_processes_may_end_at_once) {
    for (int i = 0; i < 500; i++) {
        tree.add(pid + i, "many");
    }
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 500U);
    for (int i = 0; i < 500; i++) {
        tree.remove(pid + i);
    }
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 0U);
}

TEST_F(monitor_records, other_processes_are_scored_once_if_half_of_them_end) {
    constexpr int count = 200;
    for (int i = 0; i < count; i++) {
        tree.add(pid + i, "many");
    }
    round();
    for (int i = 0; i < count; i++) {
        if (i % 2 == 0) {
            tree.remove(pid + i);
        } else {
            tree.set_fds(pid + i, {.sockets = 40 * 8});
        }
    }
    std::string lines = round();
    std::string body = status_body();
    size_t expected_length = 0;
    for (int i = 1; i < count; i += 2) {
        std::string line = fd_line(pid + i, "many", 40, "+40", 320);
        EXPECT_NE(lines.find(line), std::string::npos) << i;
        expected_length += line.size();
        EXPECT_NE(body.find("fdstats for pid=" + std::to_string(pid + i) + " score=40:\n"),
                  std::string::npos);
    }
    EXPECT_EQ(lines.size(), expected_length);
    EXPECT_EQ(known(), count / 2U);
}

TEST_F(monitor_records, a_parent_that_ended_is_ignored) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 10);
    round();
    tree.remove(pid);  // the children's stat lines still name it
    EXPECT_EQ(rounds(3), "");
    EXPECT_EQ(known(), 10U);
    tree.add(pid, "heir");
    rounds(2);  // in the first one, children listed before it do not find it
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "heir", 16, "+6"));
}

TEST_F(monitor_records, a_parent_that_loses_its_name_is_dropped) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 10);
    round();
    tree.erase(pid, "cmdline");
    tree.erase(pid, "stat");
    EXPECT_EQ(rounds(2), "");
    EXPECT_EQ(known(), 10U);
}

TEST_F(monitor_records, a_process_without_a_readable_name_is_skipped) {
    tree.write(pid, "unrelated", "");
    tree.add(other, "other");
    EXPECT_EQ(rounds(2), "");
    EXPECT_EQ(known(), 1U);
}

TEST_F(monitor_records, descriptors_that_cannot_be_read_count_as_none) {
    tree.add(pid, "hidden");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "hidden", 34, "+34", 0));
    tree.erase(pid, "fd");
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    tree.write(pid, "fd", "no folder");
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 1U);
}

TEST_F(monitor_records, a_process_without_a_stat_line_has_no_parent) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 16);
    tree.erase(first_child, "stat");
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 17U);
}

TEST_F(monitor_records, a_missing_root_has_no_processes) {
    temp_dir dir;
    std::string root = dir.path("gone");
    monitor* lost = monitor_create_at(root.c_str(), nullptr);
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), "");
    EXPECT_EQ(lost->table->count, 0U);
    monitor_destroy(lost);
}

TEST_F(monitor_records, processes_may_begin_and_end_during_a_round) {
    tree.add(other, "steady");
    std::atomic<bool> done{false};
    std::thread changes([&] {
        for (int turn = 0; !done; turn++) {
            int changing = pid + 100 + turn % 50;
            tree.add(changing, turn % 3 ? "one" : "two", other);
            tree.set_fds(changing, {.plain = turn % 7});
            if (turn % 2) {
                tree.remove(changing);
            }
        }
    });
    for (int i = 0; i < effort(300, 50); i++) {
        round();
        EXPECT_LE(known(), 51U);
        EXPECT_GE(known(), 1U);
    }
    done = true;
    changes.join();
}

TEST_F(monitor_records, memory_does_not_grow_over_thousands_of_rounds) {
    constexpr int processes = 4;
    constexpr unsigned turns = effort(10000, 2000);
    size_t settled = 0;
    int settled_fds = 0;
    monitor* silent = monitor_create_at(tree.root(), nullptr);
    for (int turn = 0; turn < static_cast<int>(turns); turn++) {
        // One process exists only in every other round, each time with another name.
        const int changing = pid + turn / 2 % processes;
        if (turn % 2 == 0) {
            tree.add(changing, turn / 8 % 2 ? "one" : "two", pid + 1);
        } else {
            tree.remove(changing);
        }
        monitor_run(silent);
        ASSERT_LE(silent->table->count, static_cast<uint32_t>(processes));
        if (turn == 99) {
            settled = mallinfo2().uordblks;
            settled_fds = count_open_fds();
        }
    }
    EXPECT_EQ(silent->round, turns + 1);
    EXPECT_LE(mallinfo2().uordblks, settled + 4096);
    EXPECT_EQ(count_open_fds(), settled_fds);
    monitor_destroy(silent);
}

TEST_F(monitor_names, may_have_blanks_parentheses_and_newlines) {
    for (const char* name : {"na me", "(par) en)", "two\nlines", "100%s%n"}) {
        tree.remove(pid);
        tree.add(pid, name);
        tree.set_fds(pid, {.plain = 1100});
        EXPECT_EQ(round(), fd_line(pid, name, 34, "+34", 0));
        EXPECT_EQ(status_body(), first_fd_stats(pid, 34, 1100, 0, 0));
        EXPECT_EQ(round(), "");
    }
}

TEST_F(monitor_names, are_cut_at_128_bytes_of_the_command_line) {
    tree.add(pid, "short");
    tree.set_cmdline(pid, "/usr/bin/" + std::string(200, 'n'));
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, std::string(127 - 9, 'n'), 34, "+34", 0));
    EXPECT_EQ(round(), "");
}

TEST_F(monitor_names, come_from_the_stat_line_if_the_command_line_has_no_slash) {
    tree.add(pid, "x");
    tree.set_cmdline(pid, "plain");
    tree.set_stat(pid, "7000000 (from stat) S 1 1 1\n");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "from stat", 34, "+34", 0));
}

TEST_F(monitor_names, are_compared_whole) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+34", 0));
    tree.set_cmdline(pid, "/usr/bin/holder2");
    EXPECT_EQ(round(), fd_line(pid, "holder2", 34, "+34", 0));
    tree.set_cmdline(pid, "/usr/sbin/holder2");  // the folder does not count
    EXPECT_EQ(round(), "");
}

TEST_F(monitor_crowd, of_1000_is_sampled_completely) {
    for (int i = 0; i < 1000; i++) {
        tree.add(pid + i, "many", pid);
        tree.set_fds(pid + i, {.plain = 12, .sockets = 4, .named_pipes = 4});
    }
    rounds(2);
    EXPECT_EQ(known(), 1000U);
    EXPECT_EQ(status_body(), fork_stats(pid, 1000));
    tree.set_fds(pid + 777, {.plain = 1100});
    tree.remove(pid + 5);
    EXPECT_EQ(round(), fd_line(pid + 777, "many", 34, "+34", 0));
    EXPECT_EQ(known(), 999U);
}

TEST_F(monitor_crowd, beyond_the_capacity_is_ignored) {
    tree.add(pid, "many");
    tree.set_fds(pid, {.sockets = 40 * 8});
    // Links to the first, which are quick to create. As many as the default number of pids, or as many as fit
    // in the file system, which is small on a machine with little memory.
    constexpr int wanted = effort(32768, 4 * monitor_capacity);
    int made = 1;
    while (made < wanted && symlink("7000000", tree.path(std::to_string(pid + made)).c_str()) == 0) {
        made++;
    }
    ASSERT_GT(made, 2 * monitor_capacity) << strerror(errno);
    monitor* crowded = monitor_create_at(tree.root(), nullptr);
    for (int i = 0; i < 2; i++) {
        std::string lines = capture_stderr([&] { monitor_run(crowded); });
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), i == 0 ? 1024 : 0);
        EXPECT_EQ(crowded->table->count, 1024U);
    }
    monitor_destroy(crowded);
    if (made < wanted) {
        GTEST_SKIP() << "tested with only " << made << " processes: the file system is full";
    }
}
