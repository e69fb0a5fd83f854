#include <gtest/gtest.h>

#include "tests/unit/archiveview/process_texts.h"

using namespace archiveview;

namespace {

constexpr int pid = 5;
constexpr double span_seconds = 8;

process_facts joined(process_list list, double span = span_seconds) {
    processes_finish(&list, span);
    return process_of(list, pid);
}

std::string links_of(int files, int sockets) {
    std::string text = "exe -> /bin/camera\ncwd -> /\n";
    for (int i = 0; i < files + sockets; i++) {
        text += "fd/" + std::to_string(i) + " -> ";
        text += i < files ? "/dev/null\n" : "socket:[" + std::to_string(1000 + i) + "]\n";
    }
    return text;
}

// A process that is in both looks.
process_list in_both(stat_values first, stat_values second) {
    process_list list;
    add_stat(&list, 0, first);
    add_stat(&list, 1, second);
    return list;
}

}  // namespace

TEST(archiveview_process_join, processor_time_between_the_looks_gives_a_share) {
    const process_facts process =
        joined(in_both({.user_ticks = 100, .system_ticks = 50}, {.user_ticks = 400, .system_ticks = 150}));
    EXPECT_DOUBLE_EQ(process.cpu_percent, 50);
}

TEST(archiveview_process_join, a_share_is_unknown_without_two_looks_or_their_distance) {
    EXPECT_EQ(joined(in_both({}, {.user_ticks = 400}), 0).cpu_percent, -1);
    process_list list;
    add_stat(&list, 1, {.user_ticks = 400});
    EXPECT_EQ(joined(list).cpu_percent, -1);
}

TEST(archiveview_process_join, all_time_of_a_process_that_began_between_the_looks_counts) {
    process_list list;
    add_stat(&list, 0, {.pid = 1, .start_ticks = 3000});
    add_stat(&list, 1, {.user_ticks = 80, .start_ticks = 3001});
    EXPECT_DOUBLE_EQ(joined(list).cpu_percent, 10);
    EXPECT_EQ(joined(list).resident_growth_kb, 0);
}

TEST(archiveview_process_join, a_process_that_only_the_first_look_missed_has_no_share) {
    process_list list;
    add_stat(&list, 0, {.pid = 1, .start_ticks = 3000});
    add_stat(&list, 1, {.user_ticks = 80, .start_ticks = 2999});
    EXPECT_EQ(joined(list).cpu_percent, -1);
}

TEST(archiveview_process_join, time_that_went_backwards_counts_as_none) {
    EXPECT_EQ(joined(in_both({.user_ticks = 400}, {.user_ticks = 3})).cpu_percent, 0);
}

TEST(archiveview_process_join, memory_and_descriptors_grow_between_the_looks) {
    process_list list = in_both({}, {});
    processes_add_look_file(&list, 0, pid, "status", status_text(1000));
    processes_add_look_file(&list, 1, pid, "status", status_text(900));
    processes_add_look_file(&list, 0, pid, "links", links_of(7, 1));
    processes_add_look_file(&list, 1, pid, "links", links_of(3, 41));
    const process_facts process = joined(list);
    EXPECT_EQ(process.resident_kb, 900);
    EXPECT_EQ(process.resident_growth_kb, -100);
    EXPECT_EQ(process.descriptor_growth, 36);
    EXPECT_EQ(process.descriptor_growth_by_kind.socket, 40);
    EXPECT_EQ(process.descriptor_growth_by_kind.file, -4);
    EXPECT_EQ(process.counts.total, 44u);
    EXPECT_EQ(process.descriptors.size(), 44u);
    EXPECT_EQ(process.first_sockets, std::vector<uint64_t>{1007});
    EXPECT_EQ(process.program, "/bin/camera");
}

TEST(archiveview_process_join, a_pid_that_was_used_again_has_no_growth) {
    process_list list = in_both({.name = "old", .user_ticks = 10, .start_ticks = 1000},
                                {.name = "new", .user_ticks = 80, .start_ticks = 2000});
    for (const int look : {0, 1}) {
        processes_add_look_file(&list, look, pid, "status", status_text(1000 + 100 * look));
        processes_add_look_file(&list, look, pid, "links", links_of(1, 1 + 10 * look));
        processes_add_look_file(&list, look, pid, "task/5/stat", stat_text({.user_ticks = 10}));
    }
    processes_add_look_file(&list, 0, pid, "cmdline", "old");
    const process_facts process = joined(list);
    EXPECT_EQ(process.name, "new");
    EXPECT_EQ(process.command, "");
    EXPECT_EQ(process.resident_kb, 1100);
    EXPECT_EQ(process.resident_growth_kb, 0);
    EXPECT_EQ(process.descriptor_growth, 0);
    EXPECT_EQ(process.descriptor_growth_by_kind.socket, 0);
    EXPECT_TRUE(process.first_sockets.empty());
    EXPECT_EQ(process.threads.at(0).ticks_between, -1);
    EXPECT_FALSE(process.has_gone);
}

TEST(archiveview_process_join, threads_have_their_time_between_the_looks) {
    process_list list = in_both({}, {});
    processes_add_look_file(&list, 0, pid, "task/5/stat", stat_text({.user_ticks = 10}));
    processes_add_look_file(&list, 1, pid, "task/5/stat", stat_text({.user_ticks = 10, .system_ticks = 700}));
    processes_add_look_file(&list, 0, pid, "task/6/stat", stat_text({.start_ticks = 1}));
    processes_add_look_file(&list, 1, pid, "task/6/stat", stat_text({.user_ticks = 9, .start_ticks = 2}));
    processes_add_look_file(&list, 0, pid, "task/7/stat", stat_text({}));
    processes_add_look_file(&list, 1, pid, "task/8/stat", stat_text({}));
    const process_facts process = joined(list);
    ASSERT_EQ(process.threads.size(), 3u);
    EXPECT_EQ(process.threads[0].ticks_between, 700);
    EXPECT_EQ(process.threads[0].ticks, 710u);
    EXPECT_EQ(process.threads[1].tid, 6);
    EXPECT_EQ(process.threads[1].ticks_between, -1);
    EXPECT_EQ(process.threads[2].tid, 8);
}

TEST(archiveview_process_join, a_process_of_the_first_look_only_has_gone) {
    process_list list;
    add_stat(&list, 0, {.state = 'T'});
    add_stat(&list, 0, {.pid = 9, .state = 'T'});
    add_stat(&list, 1, {.pid = 7});
    processes_finish(&list, span_seconds);
    EXPECT_TRUE(process_of(list, pid).has_gone);
    EXPECT_EQ(process_of(list, pid).state, 'X');
    // The second look may have been cut before this one.
    EXPECT_FALSE(process_of(list, 9).has_gone);
    EXPECT_EQ(process_of(list, 9).state, 'T');
}

TEST(archiveview_process_join, nothing_has_gone_if_the_archive_ends_before_the_second_look) {
    process_list list;
    add_stat(&list, 0, {});
    processes_add_look_file(&list, 0, pid, "links", links_of(2, 3));
    const process_facts process = joined(list);
    EXPECT_FALSE(process.has_gone);
    EXPECT_EQ(process.state, 'S');
    EXPECT_EQ(process.counts.total, 5u);
    EXPECT_EQ(process.descriptors.size(), 5u);
}

TEST(archiveview_process_join, a_second_look_that_is_cut_keeps_what_the_first_one_said) {
    process_list list = in_both({.name = "camera", .user_ticks = 1}, {.name = "camera", .user_ticks = 2});
    processes_add_look_file(&list, 0, pid, "cmdline", "camera -d");
    processes_add_look_file(&list, 0, pid, "links", links_of(2, 3));
    processes_add_look_file(&list, 0, pid, "task/5/stat", stat_text({}));
    const process_facts process = joined(list);
    EXPECT_EQ(process.command, "camera -d");
    EXPECT_EQ(process.counts.total, 5u);
    EXPECT_EQ(process.descriptor_growth, 0);
    EXPECT_EQ(process.threads.size(), 1u);
}

TEST(archiveview_process_join, children_that_have_gone_do_not_count) {
    process_list list;
    add_stat(&list, 0, {.pid = 8});
    for (const int look : {0, 1}) {
        add_stat(&list, look, {.pid = 1, .parent = 0});
        add_stat(&list, look, {.pid = 9});
        add_stat(&list, look, {.pid = 10, .state = 'Z'});
        add_stat(&list, look, {.pid = 11, .parent = 9});
    }
    processes_finish(&list, span_seconds);
    EXPECT_EQ(process_of(list, 1).children, 2u);
    EXPECT_EQ(process_of(list, 9).children, 1u);
    EXPECT_EQ(process_of(list, 11).children, 0u);
}

TEST(archiveview_process_join, kernel_threads_are_told_from_processes_without_memory) {
    const std::string no_memory = "Name:\tx\nUid:\t0\t0\t0\t0\nThreads:\t1\n";
    const auto is_kernel_thread = [](char state, const std::string& status) {
        process_list list;
        add_stat(&list, 1, {.state = state});
        processes_add_look_file(&list, 1, pid, "status", status);
        return joined(list).is_kernel_thread;
    };
    EXPECT_TRUE(is_kernel_thread('S', no_memory));
    EXPECT_FALSE(is_kernel_thread('Z', no_memory));
    EXPECT_FALSE(is_kernel_thread('S', status_text(100)));
    EXPECT_TRUE(is_kernel_thread('S', no_memory + "Kthread:\t1\n"));
    EXPECT_FALSE(is_kernel_thread('S', no_memory + "Kthread:\t0\n"));
}

TEST(archiveview_process_join, pages_count_as_4_kib_without_a_status) {
    EXPECT_EQ(joined(in_both({.resident_pages = 10}, {.resident_pages = 13})).resident_kb, 52);
    EXPECT_EQ(joined(in_both({.resident_pages = 10}, {.resident_pages = 13})).resident_growth_kb, 12);
}

TEST(archiveview_process_join, numbers_at_their_ends_do_not_overflow) {
    process_list list;
    const std::string most = " 18446744073709551615";
    std::string text = "5 (x) R";
    for (int field = 4; field <= 24; field++) {
        text += most;
    }
    processes_add_look_file(&list, 0, pid, "stat", text);
    processes_add_look_file(&list, 0, pid, "task/5/stat", text);
    processes_add_look_file(&list, 1, pid, "stat", text);
    processes_add_look_file(&list, 1, pid, "task/5/stat", text);
    processes_add_look_file(&list, 1, pid, "status", "Name:\nUid:\t-1\nVmRSS:\t99999999999999999999 kB\n");
    const process_facts process = joined(list, 1e-300);
    EXPECT_EQ(process.cpu_percent, 0);
    EXPECT_EQ(process.threads.at(0).ticks_between, 0);
}
