#include "monitor/monitor.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "monitor/ehash.h"
#include "tests/unit/monitor/fixture_tree.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using names = std::vector<std::string>;

constexpr int pid = 7000000;
constexpr int other = 7000001;
constexpr int first_child = 7001000;

class monitor_round : public testing::Test, public watched_tree {
protected:
    void set_children(int parent, int count) {
        for (; children_ > count; children_--) {
            tree.remove(first_child + children_ - 1);
        }
        for (; children_ < count; children_++) {
            tree.add(first_child + children_, "child", parent);
        }
    }
    // The number of processes that are known.
    uint32_t known() const { return m->table->count; }

private:
    int children_ = 0;
};

using monitor_fd_score = monitor_round;
using monitor_fork_score = monitor_round;
using monitor_history = monitor_round;
using monitor_records = monitor_round;
using monitor_names = monitor_round;
using monitor_status = monitor_round;
using monitor_crowd = monitor_round;

std::string fd_line(int of, const std::string& name, int score, const std::string& delta, int sockets) {
    return "pid " + std::to_string(of) + " name " + name + " fd_score " + std::to_string(score) + " [" +
           delta + "] sk=" + std::to_string(sockets) + "\n";
}

std::string fork_line(int of, const std::string& name, int score, const std::string& delta) {
    return "pid " + std::to_string(of) + " name " + name + " fork_score " + std::to_string(score) + " [" +
           delta + "]\n";
}

std::string fork_stats(int of, int count) {
    std::string number = std::to_string(count);
    return "forkstats for pid=" + std::to_string(of) + ": score=" + number + " nr_childs=" + number + "\n";
}

// The block of a process that is seen for the first time.
std::string first_fd_stats(int of, int score, int all, int sockets, int pipes) {
    return "fdstats for pid=" + std::to_string(of) + " score=" + std::to_string(score) + ":\n" +
           history_line(0, all, sockets, pipes) + history_line(1, 0, 0, 0) + history_line(2, 0, 0, 0) +
           history_line(3, 0, 0, 0) + history_line(4, all / 4, sockets / 4, pipes / 4) +
           history_line(37, 0, 0, 0) + history_line(70, 0, 0, 0) + history_line(103, 0, 0, 0);
}

std::string history_lines(const std::vector<int>& counts) {
    const int labels[] = {0, 1, 2, 3, 4, 37, 70, 103};
    std::string text;
    for (size_t i = 0; i < counts.size(); i++) {
        text += history_line(labels[i], counts[i], 0, 0);
    }
    return text;
}

std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The state letter of a process.
char state_of(pid_t process) {
    std::string path = "/proc/" + std::to_string(process) + "/stat";
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text = content_of(file.get());
    size_t mark = text.rfind(") ");
    return mark == std::string::npos || mark + 2 >= text.size() ? '?' : text[mark + 2];
}

}  // namespace

// Descriptors.

TEST_F(monitor_fd_score, of_300_plain_descriptors_is_9_and_not_reported) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 300});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    // The jump from there shows the 9.
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+25", 0));
}

TEST_F(monitor_fd_score, of_40_sockets_is_5_and_not_reported) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.sockets = 40});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    tree.set_fds(pid, {.sockets = 280});
    EXPECT_EQ(round(), fd_line(pid, "holder", 35, "+30", 280));
}

TEST_F(monitor_fd_score, of_1100_plain_descriptors_is_34_and_reported_with_a_block) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), "pid 7000000 name holder fd_score 34 [+34] sk=0\n");
    EXPECT_EQ(status(),
              "Debug monitor status round=1\n"
              "\n"
              "fdstats for pid=7000000 score=34:\n"
              "0h nr_fd=1100 nr_sock=0 nr_pipe=0\n"
              "1h nr_fd=0 nr_sock=0 nr_pipe=0\n"
              "2h nr_fd=0 nr_sock=0 nr_pipe=0\n"
              "3h nr_fd=0 nr_sock=0 nr_pipe=0\n"
              "4h nr_fd=275 nr_sock=0 nr_pipe=0\n"
              "37h nr_fd=0 nr_sock=0 nr_pipe=0\n"
              "70h nr_fd=0 nr_sock=0 nr_pipe=0\n"
              "103h nr_fd=0 nr_sock=0 nr_pipe=0\n");
}

TEST_F(monitor_fd_score, of_exactly_32_has_a_block_and_no_report) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1024});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), first_fd_stats(pid, 32, 1024, 0, 0));
}

TEST_F(monitor_fd_score, just_below_32_has_neither) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1023});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
}

TEST_F(monitor_fd_score, divides_each_kind_on_its_own) {
    tree.add(pid, "holder");
    // 31 of each alone are 0, 3 and 0; together they would be more.
    tree.set_fds(pid, {.plain = 31, .sockets = 31, .pipes = 31});
    EXPECT_EQ(round(), "");
    tree.set_fds(pid, {.plain = 500, .sockets = 100, .pipes = 400});
    // 500 / 32 + 400 / 32 + 100 / 8
    EXPECT_EQ(round(), fd_line(pid, "holder", 39, "+36", 100));
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=39:\n" + history_line(0, 1000, 100, 400) +
                                 history_line(1, 93, 31, 31) + history_line(2, 0, 0, 0) +
                                 history_line(3, 0, 0, 0) + history_line(4, 273, 32, 107) +
                                 history_line(37, 0, 0, 0) + history_line(70, 0, 0, 0) +
                                 history_line(103, 0, 0, 0));
}

TEST_F(monitor_fd_score, counts_pipes_with_a_number_as_plain) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.named_pipes = 1100});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(status_body(), first_fd_stats(pid, 34, 1100, 0, 0));
}

TEST_F(monitor_fd_score, is_reported_again_only_above_the_last_report_by_more_than_32) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.sockets = 34 * 8});
    EXPECT_EQ(round(), fd_line(pid, "holder", 34, "+34", 34 * 8));
    EXPECT_EQ(round(), "");
    tree.set_fds(pid, {.sockets = 66 * 8});
    EXPECT_EQ(round(), "");
    tree.set_fds(pid, {.sockets = 67 * 8});
    EXPECT_EQ(round(), fd_line(pid, "holder", 67, "+1", 67 * 8));
}

TEST_F(monitor_fd_score, that_falls_keeps_its_last_report) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.sockets = 40 * 8});
    EXPECT_EQ(round(), fd_line(pid, "holder", 40, "+40", 40 * 8));
    tree.set_fds(pid, {});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    tree.set_fds(pid, {.sockets = 72 * 8});
    EXPECT_EQ(round(), "");
    tree.set_fds(pid, {});
    EXPECT_EQ(round(), "");
    tree.set_fds(pid, {.sockets = 73 * 8});
    EXPECT_EQ(round(), fd_line(pid, "holder", 73, "+73", 73 * 8));
}

TEST_F(monitor_fd_score, keeps_its_block_while_it_is_high) {
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    round();
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(),
              "fdstats for pid=7000000 score=34:\n" + history_lines({1100, 1100, 0, 0, 550, 0, 0, 0}));
    tree.set_fds(pid, {.plain = 1023});
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
}

// Children.

TEST_F(monitor_fork_score, of_exactly_16_is_reported_when_they_are_counted) {
    tree.add(pid, "parent");
    EXPECT_EQ(round(), "");
    set_children(pid, 15);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    set_children(pid, 16);
    EXPECT_EQ(round(), "pid 7000000 name parent fork_score 16 [+1]\n");
    EXPECT_EQ(status(),
              "Debug monitor status round=3\n"
              "\n"
              "forkstats for pid=7000000: score=16 nr_childs=16\n");
}

TEST_F(monitor_fork_score, of_a_kernel_thread_is_reported_from_32) {
    tree.add_kernel_thread(pid, "kthreadd");
    EXPECT_EQ(round(), "");
    set_children(pid, 31);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
    set_children(pid, 32);
    EXPECT_EQ(round(), fork_line(pid, "kthreadd", 32, "+1"));
    EXPECT_EQ(status_body(), fork_stats(pid, 32));
}

TEST_F(monitor_fork_score, is_reported_again_after_a_further_16) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 20);
    EXPECT_EQ(round(), fork_line(pid, "parent", 20, "+20"));
    set_children(pid, 35);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), fork_stats(pid, 35));
    set_children(pid, 36);
    EXPECT_EQ(round(), fork_line(pid, "parent", 36, "+1"));
}

TEST_F(monitor_fork_score, of_a_kernel_thread_is_reported_again_after_a_further_32) {
    tree.add_kernel_thread(pid, "kthreadd");
    round();
    set_children(pid, 40);
    EXPECT_EQ(round(), fork_line(pid, "kthreadd", 40, "+40"));
    set_children(pid, 71);
    EXPECT_EQ(round(), "");
    set_children(pid, 72);
    EXPECT_EQ(round(), fork_line(pid, "kthreadd", 72, "+1"));
}

TEST_F(monitor_fork_score, counts_only_the_children_of_this_round) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 20);
    EXPECT_EQ(round(), fork_line(pid, "parent", 20, "+20"));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(round(), "");
        EXPECT_EQ(status_body(), fork_stats(pid, 20));
    }
    set_children(pid, 17);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), fork_stats(pid, 17));
    set_children(pid, 0);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status_body(), "");
}

TEST_F(monitor_fork_score, that_falls_keeps_its_last_report) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 20);
    EXPECT_EQ(round(), fork_line(pid, "parent", 20, "+20"));
    set_children(pid, 0);
    EXPECT_EQ(round(), "");
    set_children(pid, 35);
    EXPECT_EQ(round(), "");
    set_children(pid, 36);
    EXPECT_EQ(round(), fork_line(pid, "parent", 36, "+1"));
}

TEST_F(monitor_fork_score, shows_a_fall_and_a_rest_without_a_sign) {
    // Who loses its executable's link counts as a kernel thread meanwhile, so that a smaller number may be
    // the first that is reported.
    for (int round_number = 0; round_number < 2; round_number++) {
        const int parent = pid + round_number;
        const int later = round_number == 0 ? 18 : 20;
        tree.add(parent, "parent");
        tree.erase(parent, "exe");
        round();
        set_children(parent, 20);
        EXPECT_EQ(round(), "");
        tree.link(parent, "exe", "/usr/bin/parent");
        set_children(parent, later);
        EXPECT_EQ(round(), fork_line(parent, "parent", later, later == 18 ? "-2" : "0"));
        set_children(parent, 0);
    }
}

TEST_F(monitor_fork_score, counts_children_on_both_sides_of_their_parent) {
    // The order is the folder's; among many parents some come before their children and some after.
    constexpr int parents = 20;
    for (int i = 0; i < parents; i++) {
        tree.add(pid + 100 * i, "parent");
    }
    round();
    std::vector<std::string> expected;
    for (int i = 0; i < parents; i++) {
        for (int child = 1; child <= 16; child++) {
            tree.add(pid + 100 * i + child, "child", pid + 100 * i);
        }
        expected.push_back(fork_line(pid + 100 * i, "parent", 16, "+16"));
    }
    EXPECT_EQ(sorted_lines(round()), expected);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(round(), "");
        std::string body = status_body();
        for (int parent = 0; parent < parents; parent++) {
            EXPECT_NE(body.find(fork_stats(pid + 100 * parent, 16)), std::string::npos) << parent;
        }
    }
}

TEST_F(monitor_fork_score, survives_a_process_that_is_its_own_parent) {
    tree.add(pid, "loop", pid);
    EXPECT_EQ(rounds(3), "");
    EXPECT_EQ(known(), 1U);
}

TEST_F(monitor_fork_score, a_parent_that_is_not_listed_is_counted_nowhere) {
    set_children(1, 40);
    EXPECT_EQ(rounds(3), "");
    EXPECT_EQ(status_body(), "");
}

TEST_F(monitor_fork_score, children_that_are_given_away_count_for_their_new_parent) {
    tree.add(pid, "parent");
    tree.add(other, "subreaper");
    round();
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "parent", 16, "+16"));
    for (int i = 0; i < 16; i++) {
        tree.set_parent(first_child + i, other);
    }
    EXPECT_EQ(round(), fork_line(other, "subreaper", 16, "+16"));
    EXPECT_EQ(status_body(), fork_stats(other, 16));
}

// History.

TEST_F(monitor_history, holds_this_round_and_the_three_before_it) {
    tree.add(pid, "holder");
    for (int count : {1100, 1200, 1300, 1400, 1500}) {
        tree.set_fds(pid, {.plain = count});
        round();
    }
    EXPECT_EQ(status_body(),
              "fdstats for pid=7000000 score=46:\n" + history_lines({1500, 1400, 1300, 1200, 1350, 0, 0, 0}));
}

TEST_F(monitor_history, moves_the_averages_along_every_32_rounds) {
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

// Records.

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

TEST_F(monitor_records, a_reused_pid_with_the_same_name_goes_on) {
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

TEST_F(monitor_records, one_that_has_gone_is_forgotten_and_comes_back_as_new) {
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

TEST_F(monitor_records, all_may_go_at_once) {
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

TEST_F(monitor_records, every_second_may_go_at_once_and_the_others_are_still_scored_once) {
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

TEST_F(monitor_records, a_parent_that_has_gone_is_not_touched_by_its_children) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 10);
    round();
    tree.remove(pid);  // the children's stat lines still name it
    EXPECT_EQ(rounds(3), "");
    EXPECT_EQ(known(), 10U);
    tree.add(pid, "heir");
    rounds(2);  // in the first one, children that are listed before it don't find it
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "heir", 16, "+6"));
}

TEST_F(monitor_records, a_parent_that_loses_its_name_is_dropped_under_its_children) {
    tree.add(pid, "parent");
    round();
    set_children(pid, 10);
    round();
    tree.erase(pid, "cmdline");
    tree.erase(pid, "stat");
    EXPECT_EQ(rounds(2), "");
    EXPECT_EQ(known(), 10U);
}

TEST_F(monitor_records, a_process_without_a_readable_name_is_passed_over) {
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

TEST_F(monitor_records, a_root_that_is_missing_is_a_round_without_processes) {
    temp_dir dir;
    std::string root = dir.path("gone");
    monitor* lost = monitor_create_at(root.c_str(), nullptr);
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), "");
    EXPECT_EQ(lost->table->count, 0U);
    monitor_destroy(lost);
}

TEST_F(monitor_records, processes_may_come_and_go_in_the_middle_of_a_round) {
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

TEST_F(monitor_records, thousands_of_rounds_of_coming_and_going_need_no_more_memory) {
    constexpr int processes = 4;
    constexpr unsigned turns = effort(10000, 2000);
    size_t settled = 0;
    int settled_fds = 0;
    monitor* silent = monitor_create_at(tree.root(), nullptr);
    for (int turn = 0; turn < static_cast<int>(turns); turn++) {
        // One of them is there in every second round only, and then under another name.
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

TEST_F(monitor_records, destroy_accepts_null_and_frees_whatever_is_known) {
    monitor_destroy(nullptr);
    for (int i = 0; i < 50; i++) {
        tree.add(pid + i, "many");
    }
    size_t before = mallinfo2().uordblks;
    monitor* brief = monitor_create_at(tree.root(), nullptr);
    monitor_run(brief);
    EXPECT_EQ(brief->table->count, 50U);
    monitor_destroy(brief);
    EXPECT_LE(mallinfo2().uordblks, before + 4096);
}

// Names.

TEST_F(monitor_names, hold_blanks_parentheses_and_newlines_as_they_are) {
    for (const char* name : {"na me", "(par) en)", "two\nlines", "100%s%n"}) {
        tree.remove(pid);
        tree.add(pid, name);
        tree.set_fds(pid, {.plain = 1100});
        EXPECT_EQ(round(), fd_line(pid, name, 34, "+34", 0));
        EXPECT_EQ(status_body(), first_fd_stats(pid, 34, 1100, 0, 0));
        EXPECT_EQ(round(), "");
    }
}

TEST_F(monitor_names, of_200_characters_are_cut_where_the_read_of_128_bytes_ends) {
    tree.add(pid, "short");
    tree.set_cmdline(pid, "/usr/bin/" + std::string(200, 'n'));
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, std::string(127 - 9, 'n'), 34, "+34", 0));
    EXPECT_EQ(round(), "");
}

TEST_F(monitor_names, come_from_the_stat_line_where_the_command_line_has_no_slash) {
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
    tree.set_cmdline(pid, "/usr/sbin/holder2");  // the folder is no part of it
    EXPECT_EQ(round(), "");
}

// The status file.

TEST_F(monitor_status, begins_with_the_round_in_hexadecimal) {
    round();
    EXPECT_EQ(status(), "Debug monitor status round=1\n\n");
    rounds(30);
    EXPECT_EQ(status(), "Debug monitor status round=1f\n\n");
}

TEST_F(monitor_status, round_numbers_wrap_without_losing_history_or_children) {
    m->round = UINT32_MAX - 1;
    tree.add(pid, "parent");
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "parent", 34, "+34", 0));
    EXPECT_EQ(status().substr(0, 38), "Debug monitor status round=fffffffe\n\nf");
    set_children(pid, 16);
    EXPECT_EQ(round(), fork_line(pid, "parent", 16, "+16"));
    EXPECT_EQ(status().substr(0, 38), "Debug monitor status round=ffffffff\n\nf");
    EXPECT_EQ(round(), "");  // 0, which moves the averages along
    EXPECT_EQ(status(), "Debug monitor status round=0\n\nfdstats for pid=7000000 score=34:\n" +
                            history_lines({1100, 1100, 1100, 0, 825, 550, 0, 0}) + fork_stats(pid, 16));
    set_children(pid, 17);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(status(), "Debug monitor status round=1\n\nfdstats for pid=7000000 score=34:\n" +
                            history_lines({1100, 1100, 1100, 1100, 1100, 550, 0, 0}) + fork_stats(pid, 17));
    tree.remove(pid);
    EXPECT_EQ(round(), "");
    EXPECT_EQ(known(), 17U);
}

TEST_F(monitor_status, has_descriptors_before_children_of_one_process) {
    tree.add(pid, "both");
    round();
    set_children(pid, 16);
    tree.set_fds(pid, {.plain = 1100});
    EXPECT_EQ(round(), fd_line(pid, "both", 34, "+34", 0) + fork_line(pid, "both", 16, "+16"));
    EXPECT_EQ(status_body(), "fdstats for pid=7000000 score=34:\n" +
                                 history_lines({1100, 0, 0, 0, 275, 0, 0, 0}) + fork_stats(pid, 16));
}

TEST_F(monitor_status, leaves_nothing_beside_it) {
    rounds(5);
    EXPECT_EQ(names_in(status_folder().path()), names{"status.txt"});
}

TEST_F(monitor_status, without_a_path_only_standard_error_is_written) {
    temp_dir dir;
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    monitor* silent = monitor_create_at(tree.root(), nullptr);
    EXPECT_EQ(capture_stderr([&] { monitor_run(silent); }), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(silent->round, 2U);
    monitor_destroy(silent);
    EXPECT_EQ(names_in(status_folder().path()), names{});
}

TEST_F(monitor_status, in_a_missing_folder_is_skipped_and_the_lines_still_come) {
    temp_dir dir;
    std::string path = dir.path("gone/status");
    tree.add(pid, "holder");
    tree.set_fds(pid, {.plain = 1100});
    monitor* lost = monitor_create_at(tree.root(), path.c_str());
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), fd_line(pid, "holder", 34, "+34", 0));
    EXPECT_EQ(names_in(dir.path()), names{});
    dir.make_folder("gone");  // the next round tries again
    EXPECT_EQ(capture_stderr([&] { monitor_run(lost); }), "");
    EXPECT_EQ(names_in(dir.path("gone")), names{"status"});
    monitor_destroy(lost);
}

TEST_F(monitor_status, is_always_whole_to_a_reader_that_polls_it) {
    for (int i = 0; i < 60; i++) {
        tree.add(pid + i, "holder");
        tree.set_fds(pid + i, {.sockets = 40 * 8});
    }
    round();
    // 60 blocks in each, of which only the head and three numbers of each block change.
    const std::string last = "103h nr_fd=0 nr_sock=0 nr_pipe=0\n";
    std::atomic<bool> done{false};
    std::atomic<int> whole{0};
    std::atomic<int> broken{0};
    std::thread reader([&] {
        while (!done) {
            std::string seen = status();
            size_t blocks = 0;
            for (size_t at = 0; (at = seen.find("fdstats", at)) != std::string::npos; at++) {
                blocks++;
            }
            bool is_whole = seen.starts_with("Debug monitor status round=") && seen.ends_with(last);
            (is_whole && blocks == 60 ? whole : broken)++;
        }
    });
    for (int i = 0; i < effort(25, 8); i++) {
        monitor_run(m);
    }
    EXPECT_TRUE(eventually([&] { return whole > 100; }, std::chrono::seconds(60)));
    done = true;
    reader.join();
    EXPECT_EQ(broken, 0);
}

TEST_F(monitor_status, of_a_round_that_is_cut_short_leaves_the_earlier_file_and_no_other) {
    tree.add(pid, "holder");
    round();
    const std::string earlier = status();
    // The stat line of the last process can't be opened until somebody writes to it.
    tree.add(other, "slow");
    tree.erase(other, "stat");
    std::string gate = tree.path(std::to_string(other) + "/stat");
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    pid_t child = fork_child([&] {
        monitor_run(m);
        return 0;
    });
    // Nothing else in a round sleeps in a way that a signal could end.
    EXPECT_TRUE(eventually([&] { return state_of(child) == 'S'; }));
    kill(child, SIGKILL);
    EXPECT_TRUE(killed_by(wait_status(child), SIGKILL));
    EXPECT_EQ(status(), earlier);
    EXPECT_EQ(names_in(status_folder().path()), names{"status.txt"});
}

// Many processes.

TEST_F(monitor_crowd, of_a_thousand_is_sampled_whole) {
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

TEST_F(monitor_crowd, of_many_times_the_capacity_is_sampled_up_to_it) {
    tree.add(pid, "many");
    tree.set_fds(pid, {.sockets = 40 * 8});
    // Links to the first, so that it does not take for ever. As many as there are pids without any setting,
    // where the file system has room for them; it may have none for all where the memory is that of a small
    // machine.
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
        GTEST_SKIP() << "seen with " << made << " processes only: the file system is full";
    }
}

// The daemon's thread.

TEST(monitor_thread, ends_with_the_reason_when_it_may_not_be_idle) {
    int status = 0;
    std::string said = capture_stderr([&] {
        status = run_in_child([] {
            if (!fail_calls({{SYS_sched_setscheduler, EPERM}})) {
                return 77;
            }
            return monitor_thread_run(nullptr) == nullptr ? 0 : 1;
        });
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "this kernel has no system call filters";
    }
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(said, "setschedparam: Operation not permitted\n");
}
