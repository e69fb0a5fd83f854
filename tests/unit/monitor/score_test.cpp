#include "monitor/score.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "monitor/process_record.h"
#include "tests/unit/monitor/monitor_round.h"

namespace {

using monitor_fd_score = monitor_round;
using monitor_fork_score = monitor_round;

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

// Scores one record, which the test fills; its process is not in the tree.
class monitor_score_call : public monitor_round {
protected:
    monitor_score_call() {
        unique_malloc<process_record> fresh = calloc_one<process_record>();
        fresh->pid = pid;
        fresh->seen_round = m->round;
        strcpy(fresh->name, "held");
        EXPECT_EQ(ehash_insert_e(m->table, &fresh->pid, sizeof fresh->pid, &fresh->node), 0);
        record = fresh.release();
    }
    ~monitor_score_call() override { free(text_); }

    // The text on standard error.
    std::string score() {
        return capture_stderr([this] {
            free(text_);
            unique_file stream(open_memstream(&text_, &length_));
            monitor_score(m, stream.get());
        });
    }
    std::string details() const { return {text_, length_}; }

    process_record* record;  // owned by the table

private:
    char* text_ = nullptr;
    size_t length_ = 0;
};

}  // namespace

TEST_F(monitor_score_call, reports_and_remembers_a_jump) {
    record->fds[0].all = 1100;
    record->previous_fd_score = 4;
    EXPECT_EQ(score(), fd_line(pid, "held", 34, "+30", 0));
    EXPECT_EQ(record->previous_fd_score, 34);
    EXPECT_EQ(record->reported_fd_score, 34);
    EXPECT_EQ(details(), "fdstats for pid=7000000 score=34:\n" + history_lines({1100, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(monitor_score_call, prints_no_details_without_a_stream) {
    record->fds[0].all = 1100;
    EXPECT_EQ(capture_stderr([this] { monitor_score(m, nullptr); }), fd_line(pid, "held", 34, "+34", 0));
}

TEST_F(monitor_score_call, treats_a_process_without_an_executable_as_a_kernel_thread) {
    record->children = 31;
    EXPECT_EQ(score(), "");
    EXPECT_EQ(details(), "");
    record->children = 32;
    EXPECT_EQ(score(), fork_line(pid, "held", 32, "+1"));
    EXPECT_EQ(details(), fork_stats(pid, 32));
}

TEST_F(monitor_score_call, removes_a_record_that_this_round_has_not_sampled) {
    record->fds[0].all = 1100;
    record->seen_round = m->round - 1;
    EXPECT_EQ(score(), "");
    EXPECT_EQ(known(), 0U);
}

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

TEST_F(monitor_fd_score, that_falls_keeps_the_reported_value) {
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

TEST_F(monitor_fork_score, that_falls_keeps_the_reported_value) {
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

TEST_F(monitor_fork_score, has_no_plus_sign_if_it_has_not_grown) {
    // Without its executable link the parent counts as a kernel thread, so a smaller number may be the first
    // to be reported.
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

TEST_F(monitor_fork_score, counts_children_before_and_after_their_parent) {
    // In directory order, some of many parents come before their children and some after.
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

TEST_F(monitor_fork_score, ignores_a_parent_that_is_not_listed) {
    set_children(1, 40);
    EXPECT_EQ(rounds(3), "");
    EXPECT_EQ(status_body(), "");
}

TEST_F(monitor_fork_score, counts_a_reparented_child_for_its_new_parent) {
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
