#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "archive/process_links.h"
#include "tests/unit/archiveview/process_texts.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

constexpr int pid = 5;
constexpr int second_look = 1;

// The process after files of the second look.
process_facts process_with(const std::vector<std::pair<std::string, std::string>>& files) {
    process_list list;
    for (const auto& [name, text] : files) {
        processes_add_look_file(&list, second_look, pid, name, text);
    }
    processes_finish(&list, 5);
    return process_of(list, pid);
}

}  // namespace

TEST(archiveview_process_look, stat_names_may_hold_blanks_parentheses_and_newlines) {
    for (const char* name : {"a b", "a) S 7 (b", ") ", "two\nlines", "((", ""}) {
        stat_values values;
        values.name = name;
        const process_facts process = process_with({{"stat", stat_text(values)}});
        EXPECT_EQ(process.name, name);
        EXPECT_EQ(process.state, 'S');
        EXPECT_EQ(process.parent, 1);
    }
}

TEST(archiveview_process_look, stat_gives_parent_state_threads_and_start) {
    const process_facts process =
        process_with({{"stat", stat_text({.state = 'D', .parent = 42, .threads = 19, .start_ticks = 77})}});
    EXPECT_EQ(process.parent, 42);
    EXPECT_EQ(process.state, 'D');
    EXPECT_EQ(process.thread_count, 19u);
    EXPECT_EQ(process.start_ticks, 77u);
    EXPECT_TRUE(process.in_second_look);
    EXPECT_FALSE(process.in_first_look);
}

TEST(archiveview_process_look, a_cut_stat_leaves_the_process_unknown) {
    const std::string text = stat_text({});
    const process_facts process = process_with({{"stat", text.substr(0, text.size() / 2)}});
    EXPECT_EQ(process.pid, pid);
    EXPECT_EQ(process.state, '?');
    EXPECT_EQ(process.name, "");
}

TEST(archiveview_process_look, status_gives_memory_and_the_effective_user) {
    const process_facts process =
        process_with({{"status", "Name:\tx\nUid:\t1\t104\t3\t4\nVmRSS:\t  812 kB\n"}});
    EXPECT_EQ(process.resident_kb, 812);
    EXPECT_EQ(process.user, "104");
}

TEST(archiveview_process_look, arguments_are_separated_by_blanks) {
    EXPECT_EQ(process_with({{"cmdline", std::string("sleep\0001000\0", 11)}}).command, "sleep 1000");
    EXPECT_EQ(process_with({{"cmdline", ""}}).command, "");
    EXPECT_EQ(process_with({{"cmdline", std::string(3 * command_limit, 'x')}}).command.size(), command_limit);
}

TEST(archiveview_process_look, limits_give_the_soft_bound_of_descriptors) {
    constexpr char limits[] =
        "Limit                     Soft Limit           Hard Limit           Units     \n"
        "Max processes             96365                96365                processes \n"
        "Max open files            1024                 4096                 files     \n";
    EXPECT_EQ(process_with({{"limits", limits}}).descriptor_bound, 1024u);
    EXPECT_EQ(
        process_with({{"limits", "Max open files            unlimited unlimited files\n"}}).descriptor_bound,
        0u);
}

TEST(archiveview_process_look, wait_channel_is_empty_if_the_process_runs) {
    EXPECT_EQ(process_with({{"wchan", "futex_wait_queue"}}).wait_channel, "futex_wait_queue");
    EXPECT_EQ(process_with({{"wchan", "0"}}).wait_channel, "");
}

TEST(archiveview_process_look, links_give_the_program_and_kinds_of_descriptors) {
    const process_facts process = process_with({{"links",
                                                 "exe -> /usr/bin/camera (deleted)\n"
                                                 "cwd -> /\n"
                                                 "fd/0 -> /dev/null\n"
                                                 "fd/1 -> pipe:[88]\n"
                                                 "fd/2 -> (unreachable)/log\n"
                                                 "fd/3 -> socket:[4711]\n"
                                                 "fd/4 -> anon_inode:[eventpoll]\n"
                                                 "fd/17 -> /tmp/a -> b\n"}});
    EXPECT_EQ(process.program, "/usr/bin/camera (deleted)");
    ASSERT_EQ(process.descriptors.size(), 6u);
    EXPECT_EQ(process.descriptors[1].inode, 88u);
    EXPECT_EQ(process.descriptors[3].number, 3);
    EXPECT_EQ(process.descriptors[3].target, "socket:[4711]");
    EXPECT_EQ(process.descriptors[3].inode, 4711u);
    EXPECT_EQ(process.descriptors[5].number, 17);
    EXPECT_EQ(process.descriptors[5].target, "/tmp/a -> b");
    EXPECT_EQ(process.counts.total, 6u);
    EXPECT_EQ(process.counts.file, 3u);
    EXPECT_EQ(process.counts.socket, 1u);
    EXPECT_EQ(process.counts.pipe, 1u);
    EXPECT_EQ(process.counts.other, 1u);
}

TEST(archiveview_process_look, escapes_in_links_become_the_bytes_they_stand_for) {
    const process_facts process =
        process_with({{"links", "fd/0 -> /a\\012b\\134c\\777\\01\nfd/1 -> /\\\nfd/2 -> /\\303\\244\n"}});
    ASSERT_EQ(process.descriptors.size(), 3u);
    EXPECT_EQ(process.descriptors[0].target, "/a\nb\\c\\777\\01");
    EXPECT_EQ(process.descriptors[1].target, "/\\");
    EXPECT_EQ(process.descriptors[2].target, "/\303\244");
}

TEST(archiveview_process_look, odd_links_are_no_descriptors) {
    const process_facts process = process_with(
        {{"links",
          "fd/ -> /a\nfd/-1 -> /a\nfd/x -> /a\nfd/99999999999 -> /a\nfd/1 /a\n -> \nfd/0 -> /dev/nu"}});
    ASSERT_EQ(process.descriptors.size(), 1u);
    EXPECT_EQ(process.descriptors[0].number, 0);
}

TEST(archiveview_process_look, sockets_without_a_right_number_have_no_inode) {
    const process_facts process = process_with(
        {{"links", "fd/0 -> socket:[]\nfd/1 -> socket:[99999999999999999999999]\nfd/2 -> socket:[-1]\n"}});
    EXPECT_EQ(process.counts.socket, 3u);
    for (const descriptor& d : process.descriptors) {
        EXPECT_EQ(d.inode, 0u);
    }
}

TEST(archiveview_process_look, the_links_that_the_device_writes_are_understood) {
    const auto links = std::make_unique<process_links>();
    const int folder = open("/proc/self", O_PATH | O_DIRECTORY);
    ASSERT_GE(folder, 0);
    process_links_read(folder, links.get());
    close(folder);
    const process_facts process = process_with({{"links", std::string(links->text, links->length)}});
    EXPECT_EQ(process.program, std::filesystem::read_symlink("/proc/self/exe"));
    EXPECT_EQ(static_cast<int>(process.counts.total), links->descriptors);
    EXPECT_EQ(process.descriptors.size(), process.counts.total);
}

TEST(archiveview_process_look, threads_have_names_states_and_wait_channels) {
    stat_values one, two;
    two.pid = 9;
    two.name = "worker (2)";
    two.state = 'R';
    two.user_ticks = 30;
    two.system_ticks = 4;
    const process_facts process = process_with({{"task/5/stat", stat_text(one)},
                                                {"task/5/wchan", "poll_schedule_timeout"},
                                                {"task/9/stat", stat_text(two)},
                                                {"task/9/status", "Name:\tworker\n"}});
    ASSERT_EQ(process.threads.size(), 2u);
    EXPECT_EQ(process.threads[0].tid, 5);
    EXPECT_EQ(process.threads[0].wait_channel, "poll_schedule_timeout");
    EXPECT_EQ(process.threads[1].tid, 9);
    EXPECT_EQ(process.threads[1].name, "worker (2)");
    EXPECT_EQ(process.threads[1].state, 'R');
    EXPECT_EQ(process.threads[1].ticks, 34u);
}

TEST(archiveview_process_look, odd_thread_folders_are_ignored) {
    const std::string text = stat_text({});
    EXPECT_TRUE(process_with({{"task/", text},
                              {"task/x/stat", text},
                              {"task/-3/stat", text},
                              {"task/0/stat", text},
                              {"task/5", text},
                              {"task/99999999999/stat", text}})
                    .threads.empty());
}

TEST(archiveview_process_look, threads_of_a_process_are_bounded) {
    process_list list;
    for (int tid = 1; tid <= static_cast<int>(thread_limit) + 5; tid++) {
        processes_add_look_file(&list, second_look, pid, "task/" + std::to_string(tid) + "/wchan", "0");
    }
    processes_add_look_file(&list, second_look, pid, "task/1/wchan", "futex_wait");
    processes_finish(&list, 5);
    const process_facts& process = process_of(list, pid);
    EXPECT_EQ(process.threads.size(), thread_limit);
    EXPECT_EQ(process.threads[0].wait_channel, "futex_wait");
}

TEST(archiveview_process_look, pids_and_looks_outside_their_range_are_ignored) {
    process_list list;
    const std::string text = stat_text({});
    processes_add_look_file(&list, 0, 0, "stat", text);
    processes_add_look_file(&list, 0, -7, "stat", text);
    processes_add_look_file(&list, 2, pid, "stat", text);
    processes_add_look_file(&list, -1, pid, "stat", text);
    processes_finish(&list, 5);
    EXPECT_TRUE(list.by_pid.empty());
}

TEST(archiveview_process_look, processes_are_bounded) {
    process_list list;
    for (int other = 1; other <= static_cast<int>(process_limit) + 5; other++) {
        processes_add_look_file(&list, 0, other, "wchan", "0");
    }
    processes_finish(&list, 5);
    EXPECT_EQ(list.by_pid.size(), process_limit);
}

TEST(archiveview_process_look, descriptors_beyond_the_bounds_are_only_counted) {
    constexpr unsigned count = descriptor_limit + 10;
    std::string links;
    for (unsigned i = 0; i < count; i++) {
        links += "fd/" + std::to_string(i) + " -> socket:[7]\n";
    }
    const process_facts process = process_with({{"links", links}});
    EXPECT_EQ(process.descriptors.size(), descriptor_limit);
    EXPECT_EQ(process.counts.total, count);
    EXPECT_EQ(process.counts.socket, count);
}

TEST(archiveview_process_look, memory_of_all_descriptors_is_bounded) {
    process_list list;
    std::string links;
    for (int i = 0; i < 1000; i++) {
        links += "fd/1 -> /" + std::string(path_limit - 1, 'x') + "\n";
    }
    for (int other = 1; other <= 20; other++) {
        processes_add_look_file(&list, 0, other, "links", links);
        processes_add_look_file(&list, 0, other, "links", links);  // takes the place of the first
    }
    EXPECT_LE(list.descriptor_bytes, descriptor_bytes_limit);
    EXPECT_GT(list.descriptor_bytes, descriptor_bytes_limit * 9 / 10);
    processes_finish(&list, 5);
    EXPECT_EQ(process_of(list, 1).descriptors.size(), 1000u);
    EXPECT_TRUE(process_of(list, 20).descriptors.empty());
    EXPECT_EQ(process_of(list, 20).counts.file, 1000u);
}
