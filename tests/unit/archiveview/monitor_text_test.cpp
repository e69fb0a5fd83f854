#include <gtest/gtest.h>

#include "tests/unit/archiveview/process_texts.h"

using namespace archiveview;

namespace {

monitor_report report_of(const process_list& list, int pid) {
    return process_of(list, pid).monitor;
}

process_list list_of(std::string_view text) {
    process_list list;
    processes_add_monitor(&list, text);
    return list;
}

using numbers = std::vector<int>;

constexpr char whole[] =
    "Debug monitor status round=1f\n\n"
    "fdstats for pid=7 score=39:\n"
    "0h nr_fd=290 nr_sock=283 nr_pipe=2\n"
    "1h nr_fd=200 nr_sock=193 nr_pipe=3\n"
    "2h nr_fd=110 nr_sock=103 nr_pipe=4\n"
    "3h nr_fd=20 nr_sock=13 nr_pipe=5\n"
    "4h nr_fd=155 nr_sock=148 nr_pipe=3\n"
    "37h nr_fd=7 nr_sock=0 nr_pipe=0\n"
    "70h nr_fd=7 nr_sock=0 nr_pipe=0\n"
    "103h nr_fd=7 nr_sock=0 nr_pipe=0\n"
    "forkstats for pid=7: score=17 nr_childs=18\n"
    "forkstats for pid=8: score=33 nr_childs=33\n";

}  // namespace

TEST(archiveview_monitor_text, reports_scores_and_the_last_rounds) {
    const process_list list = list_of(whole);
    const monitor_report report = report_of(list, 7);
    EXPECT_EQ(report.descriptor_score, 39);
    EXPECT_EQ(report.descriptors, (numbers{290, 200, 110, 20}));
    EXPECT_EQ(report.sockets, (numbers{283, 193, 103, 13}));
    EXPECT_EQ(report.pipes, (numbers{2, 3, 4, 5}));
    EXPECT_EQ(report.fork_score, 17);
    EXPECT_EQ(report.children, 18);
    EXPECT_EQ(report_of(list, 8).fork_score, 33);
    EXPECT_TRUE(report_of(list, 8).descriptors.empty());
    EXPECT_EQ(list.by_pid.size(), 2u);
}

TEST(archiveview_monitor_text, rounds_before_the_start_of_a_process_are_left_out) {
    const process_list list = list_of(
        "fdstats for pid=7 score=39:\n0h nr_fd=290 nr_sock=283 nr_pipe=2\n1h nr_fd=200 nr_sock=0 nr_pipe=3\n"
        "2h nr_fd=0 nr_sock=0 nr_pipe=0\n3h nr_fd=0 nr_sock=0 nr_pipe=0\n4h nr_fd=1 nr_sock=0 nr_pipe=0\n");
    EXPECT_EQ(report_of(list, 7).descriptors, (numbers{290, 200}));
    EXPECT_EQ(report_of(list, 7).sockets, (numbers{283, 0}));
    EXPECT_EQ(report_of(list, 7).pipes, (numbers{2, 3}));
}

TEST(archiveview_monitor_text, a_later_block_of_a_process_takes_the_place_of_the_first) {
    const std::string block = "fdstats for pid=7 score=39:\n0h nr_fd=290 nr_sock=283 nr_pipe=2\n";
    const process_list list = list_of(block + "forkstats for pid=7: score=16 nr_childs=16\n" + block);
    EXPECT_EQ(report_of(list, 7).descriptors, numbers{290});
    EXPECT_EQ(report_of(list, 7).children, 16);
}

TEST(archiveview_monitor_text, a_report_of_nothing_adds_no_process) {
    EXPECT_TRUE(list_of("Debug monitor status round=1\n\n").by_pid.empty());
    EXPECT_TRUE(list_of("").by_pid.empty());
}

TEST(archiveview_monitor_text, odd_lines_are_ignored) {
    const process_list list = list_of(
        "0h nr_fd=1 nr_sock=1 nr_pipe=1\nfdstats\nfdstats for pid=0 score=40:\nfdstats for pid=-1 score=40:\n"
        "fdstats for pid=99999999999 score=40:\nfdstats for pid=9 score=x:\nfdstats of pid=9 score=1:\n"
        "forkstats for pid=: score=1 nr_childs=1\n"
        "fdstats for pid=7 score=-5:\n0h nr_fd=1 nr_sock=x nr_pipe=1\n0h nr_fd=3 nr_sock=2\n"
        "0h nr_fd=99999999999 nr_sock=1 nr_pipe=1\n0h nr_fd=9 nr_sock=2 nr_pipe=1\nforkstats for pid=7: "
        "score=1\n");
    ASSERT_EQ(list.by_pid.size(), 1u);
    EXPECT_EQ(report_of(list, 7).descriptor_score, -5);
    EXPECT_EQ(report_of(list, 7).descriptors, numbers{9});
    EXPECT_EQ(report_of(list, 7).fork_score, 1);
    EXPECT_EQ(report_of(list, 7).children, 0);
}

TEST(archiveview_monitor_text, a_cut_report_keeps_what_is_there) {
    const std::string_view text = whole;
    for (size_t length = 0; length <= text.size(); length++) {
        const process_list list = list_of(text.substr(0, length));
        EXPECT_LE(report_of(list, 7).descriptors.size(), 4u);
        EXPECT_EQ(report_of(list, 7).descriptors.size(), report_of(list, 7).pipes.size());
    }
}
