#include "archive/process_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/unit/archiveview/process_texts.h"

using namespace archiveview;

namespace {

constexpr char heading[] =
    "    PID    PPID USER       STATE  THR       TIME      CPU   RSS KiB    GROWTH    FDS GROWTH NAME        "
    "    "
    "COMMAND\n";

process_list list_of(const std::string& lines) {
    process_list list;
    processes_add_table(&list, heading + lines);
    processes_finish(&list, 5);
    return list;
}

void remember(process_looks* looks, int look, int pid, const char* name, const char* command, uint64_t ticks,
              int descriptors) {
    process_sample sample = {};
    sample.pid = pid;
    sample.stat.ppid = 1;
    sample.stat.state = 'S';
    sample.stat.threads = 3;
    sample.stat.cpu_ticks = ticks;
    sample.stat.start_ticks = 10;
    snprintf(sample.stat.name, sizeof sample.stat.name, "%s", name);
    sample.uid = 104;
    sample.taken_ms = 1000 + static_cast<uint32_t>(look) * 4000;
    sample.resident_kb = 700;
    sample.descriptors = descriptors;
    sample.command_at = static_cast<uint32_t>(looks->commands.length);
    sample.command_length = static_cast<uint32_t>(strlen(command));
    ASSERT_TRUE(growing_append(&looks->commands, command, strlen(command)));
    ASSERT_TRUE(growing_append(&looks->samples[look], &sample, sizeof sample));
}

}  // namespace

TEST(archiveview_process_table, tells_of_a_process_whose_files_are_missing) {
    const process_list list = list_of(
        "      7       2 root       S        3    0:00.08     0.2%     13956       +20    289   +178 python3 "
        "        "
        "/usr/bin/python3 -c x\n");
    const process_facts& process = process_of(list, 7);
    EXPECT_EQ(process.parent, 2);
    EXPECT_EQ(process.user, "root");
    EXPECT_EQ(process.state, 'S');
    EXPECT_EQ(process.thread_count, 3u);
    EXPECT_DOUBLE_EQ(process.cpu_percent, 0.2);
    EXPECT_EQ(process.resident_kb, 13956);
    EXPECT_EQ(process.resident_growth_kb, 20);
    EXPECT_EQ(process.descriptor_growth, 178);
    EXPECT_EQ(process.name, "python3");
    EXPECT_EQ(process.command, "/usr/bin/python3 -c x");
    EXPECT_EQ(list.by_pid.size(), 1u);
}

TEST(archiveview_process_table, the_table_of_the_device_is_understood) {
    process_looks looks;
    remember(&looks, 0, 5, "two words", "/bin/two words -v", 100, 10);
    remember(&looks, 0, 6, "gone", "gone", 0, 3);
    remember(&looks, 1, 5, "two words", "/bin/two words -v", 300, 12);
    remember(&looks, 1, 7, "new", "new", 0, 3);
    growing_bytes text;
    ASSERT_TRUE(process_table_text(&looks, "daemon:x:104:104::/:/bin/sh\n", &text));
    process_list list;
    processes_add_table(&list, {text.data.get(), text.length});
    processes_add_look_file(&list, 0, 6, "wchan", "0");
    processes_finish(&list, 5);
    const process_facts& process = process_of(list, 5);
    EXPECT_EQ(process.name, "two words");
    EXPECT_EQ(process.command, "/bin/two words -v");
    EXPECT_EQ(process.user, "daemon");
    EXPECT_DOUBLE_EQ(process.cpu_percent, 50);
    EXPECT_EQ(process.descriptor_growth, 2);
    EXPECT_TRUE(process_of(list, 6).has_gone);
    EXPECT_EQ(process_of(list, 6).state, 'X');
    EXPECT_EQ(process_of(list, 7).name, "new");
    EXPECT_EQ(process_of(list, 7).descriptor_growth, 0);
    EXPECT_EQ(list.by_pid.size(), 3u);
}

TEST(archiveview_process_table, the_share_of_the_device_is_preferred_and_names_of_users_too) {
    process_list list;
    add_stat(&list, 0, {});
    add_stat(&list, 1, {.user_ticks = 300});
    processes_add_look_file(&list, 1, 5, "status", status_text(12, 104));
    processes_add_look_file(&list, 1, 5, "cmdline", "camera");
    processes_add_table(
        &list,
        "      5       1 daemon     R        1    0:03.00    61.3%       700        +0      3     +0 "
        "other           other command\n");
    processes_finish(&list, 5);
    const process_facts& process = process_of(list, 5);
    EXPECT_DOUBLE_EQ(process.cpu_percent, 61.3);
    EXPECT_EQ(process.user, "daemon");
    EXPECT_EQ(process.name, "camera");
    EXPECT_EQ(process.command, "camera");
    EXPECT_EQ(process.state, 'S');
    EXPECT_EQ(process.resident_kb, 12);
}

TEST(archiveview_process_table, counts_descriptors_where_the_list_of_links_is_cut) {
    process_list list;
    add_stat(&list, 0, {});
    add_stat(&list, 1, {});
    processes_add_look_file(&list, 0, 5, "links", "fd/0 -> /a\n(the list is cut here)\n");
    processes_add_look_file(&list, 1, 5, "links", "fd/0 -> /a\nfd/1 -> /a\n(the list is cut here)\n");
    processes_add_table(
        &list,
        "      5       1 root       R        1    0:03.00    61.3%       700        +0  20000  +9000 "
        "camera          camera\n");
    processes_finish(&list, 5);
    const process_facts& process = process_of(list, 5);
    EXPECT_EQ(process.counts.total, 20000u);
    EXPECT_EQ(process.counts.file, 2u);
    EXPECT_EQ(process.descriptor_growth, 9000);
}

TEST(archiveview_process_table, the_second_line_of_a_pid_is_that_of_the_process_that_has_it_now) {
    const process_list list = list_of(
        "      7       2 root       gone     1    0:00.00        -      1756         -      5      - sleep   "
        "        "
        "sleep 1\n"
        "      7       3 root       S        1    0:00.00     0.0%      1756       new      5    new ls      "
        "        "
        "ls\n");
    EXPECT_EQ(process_of(list, 7).name, "ls");
    EXPECT_EQ(process_of(list, 7).state, 'S');
    EXPECT_EQ(process_of(list, 7).parent, 3);
    EXPECT_EQ(process_of(list, 7).cpu_percent, -1);
}

TEST(archiveview_process_table, lines_of_another_shape_are_ignored) {
    EXPECT_TRUE(list_of("\n\n5\n5 1\n5 1 root\n5 1 root running\n-3 1 root S 1\n0 1 root S 1\n"
                        "99999999999 1 root S 1\n")
                    .by_pid.empty());
    const process_list cut = list_of("5 1 root S 1 0:00.00");
    EXPECT_EQ(process_of(cut, 5).name, "");
    EXPECT_EQ(process_of(cut, 5).cpu_percent, -1);
}
