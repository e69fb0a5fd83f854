#include "archive/process_table.h"

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "archive/manifest.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/memory_limit.h"

namespace {

constexpr char heading[] =
    "    PID    PPID USER       STATE  THR       TIME      CPU   RSS KiB    GROWTH    FDS GROWTH NAME        "
    "    "
    "COMMAND\n";

// A process that has run for 1000 s and used 10 s; at the first look.
process_sample sample_of(pid_t pid) {
    process_sample sample = {};
    sample.pid = pid;
    sample.stat.ppid = 1;
    sample.stat.state = 'S';
    sample.stat.threads = 4;
    sample.stat.cpu_ticks = 1000;
    sample.stat.start_ticks = 50000;
    sample.resident_kb = 5120;
    strcpy(sample.stat.name, "app");
    sample.descriptors = 23;
    sample.taken_ms = 1500000;
    return sample;
}

// The same process 10 s later.
process_sample later(process_sample sample, unsigned ticks = 0) {
    sample.taken_ms += 10000;
    sample.stat.cpu_ticks += ticks;
    return sample;
}

struct two_looks : process_looks {
    two_looks() { count = 2; }
    void add(int look, process_sample sample, const std::string& command = "/usr/bin/app") {
        sample.command_at = static_cast<uint32_t>(commands.length);
        sample.command_length = static_cast<uint32_t>(command.size());
        EXPECT_TRUE(growing_append(&commands, command.data(), command.size()));
        EXPECT_TRUE(growing_append(&samples[look], &sample, sizeof sample));
    }
    void add_both(process_sample before, process_sample after) {
        add(0, before);
        add(1, after);
    }
};

std::string table_of(const process_looks& looks, const char* users = "root:x:0:0::/root:/bin/sh\n") {
    growing_bytes text;
    EXPECT_TRUE(process_table_text(&looks, users, &text));
    return {text.data.get(), text.length};
}

// The lines without the heading.
std::vector<std::string> lines_of(const process_looks& looks,
                                  const char* users = "root:x:0:0::/root:/bin/sh\n") {
    const std::string text = table_of(looks, users);
    EXPECT_TRUE(text.starts_with(heading)) << text;
    std::istringstream stream(text.substr(std::min(text.size(), sizeof heading - 1)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

enum column {
    pid,
    ppid,
    user,
    state,
    threads,
    cpu_time,
    share,
    rss,
    rss_growth,
    fds,
    fd_growth,
    name,
    command
};

std::vector<std::string> words_of(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    words.resize(std::max<size_t>(words.size(), command + 1));
    return words;
}

std::string cell_of_only_line(const process_looks& looks, column at, const char* users = "") {
    const std::vector<std::string> lines = lines_of(looks, users);
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? "" : words_of(lines[0])[at];
}

std::string share_after(uint64_t ticks_before, uint64_t ticks_after) {
    process_sample before = sample_of(5);
    before.stat.cpu_ticks = ticks_before;
    process_sample after = later(before);
    after.stat.cpu_ticks = ticks_after;
    two_looks looks;
    looks.add_both(before, after);
    return cell_of_only_line(looks, share);
}

std::string time_of(uint64_t ticks) {
    process_sample sample = sample_of(5);
    sample.stat.cpu_ticks = ticks;
    two_looks looks;
    looks.add_both(sample, later(sample));
    return cell_of_only_line(looks, cpu_time);
}

std::string user_of(uid_t uid, const char* users) {
    process_sample sample = sample_of(5);
    sample.uid = uid;
    two_looks looks;
    looks.add(1, sample);
    return cell_of_only_line(looks, user, users);
}

}  // namespace

TEST(process_table_text, columns_are_aligned) {
    process_sample after = later(sample_of(812), 973);
    after.resident_kb += 64;
    after.descriptors += 7;
    two_looks looks;
    looks.add_both(sample_of(812), after);
    char expected[256];
    snprintf(expected, sizeof expected, "%s%s%9u%s", heading,
             "    812       1 root       S        4    0:19.73    97.3% ", 5120 + 64,
             "       +64     30     +7 app             /usr/bin/app\n");
    EXPECT_EQ(table_of(looks), expected);
}

TEST(process_table_text, without_processes_is_the_heading) {
    EXPECT_EQ(table_of(two_looks()), heading);
}

TEST(process_table_text, share_is_that_between_the_looks) {
    EXPECT_EQ(share_after(5000, 5973), "97.3%");
    EXPECT_EQ(share_after(5000, 5000), "0.0%");
    EXPECT_EQ(share_after(5000, 5001), "0.1%");
    EXPECT_EQ(share_after(5000, 9000), "400.0%");
    EXPECT_EQ(share_after(UINT32_MAX - 10, uint64_t{UINT32_MAX} + 490), "50.0%");
}

TEST(process_table_text, share_is_right_when_the_clock_of_the_samples_wraps) {
    process_sample before = sample_of(5);
    before.taken_ms = UINT32_MAX - 4999;
    process_sample after = later(before, 500);
    ASSERT_EQ(after.taken_ms, 5000u);
    two_looks looks;
    looks.add_both(before, after);
    EXPECT_EQ(cell_of_only_line(looks, share), "50.0%");
}

TEST(process_table_text, share_is_0_if_the_time_decreases) {
    EXPECT_EQ(share_after(5000, 4000), "0.0%");
    EXPECT_EQ(share_after(UINT64_MAX, 0), "0.0%");
}

TEST(process_share_permille, is_rounded) {
    EXPECT_EQ(process_share_permille(1, 100000), 0u);  // 0.1 permille
    EXPECT_EQ(process_share_permille(1, 20000), 1u);   // 0.5 permille
    EXPECT_EQ(process_share_permille(1, 10), 1000u);
    EXPECT_EQ(process_share_permille(5, 0), 0u);
}

TEST(process_share_permille, long_spans_are_exact_to_a_tenth_of_a_percent) {
    EXPECT_EQ(process_share_permille(200000, 2000000), 1000u);
    EXPECT_EQ(process_share_permille(200001, 2000010), 1000u);
    EXPECT_EQ(process_share_permille(429496729, 4294967290), 1000u);
    EXPECT_EQ(process_share_permille(214748364, 4294967295), 500u);
    EXPECT_EQ(process_share_permille(1, 4294967295), 0u);
}

TEST(process_table_text, time_is_minutes_seconds_and_hundredths) {
    EXPECT_EQ(time_of(0), "0:00.00");
    EXPECT_EQ(time_of(99), "0:00.99");
    EXPECT_EQ(time_of(5999), "0:59.99");
    EXPECT_EQ(time_of(6000), "1:00.00");
    EXPECT_EQ(time_of(360000 + 61 * 100 + 7), "61:01.07");
    EXPECT_EQ(time_of(UINT32_MAX), "715827:52.95");
    EXPECT_EQ(time_of(uint64_t{UINT32_MAX} + 1), "715827:52.96");
    EXPECT_EQ(time_of(uint64_t{1234567890} * 6000 + 1234), "1234567890:12.34");
}

TEST(process_table_text, growth_has_a_sign) {
    for (int change : {-23, -1, 0, 1, 1000}) {
        process_sample after = later(sample_of(5));
        after.descriptors += change;
        after.resident_kb += static_cast<uint32_t>(change);
        two_looks looks;
        looks.add_both(sample_of(5), after);
        const std::string sign = change < 0 ? "" : "+";
        EXPECT_EQ(cell_of_only_line(looks, fd_growth), sign + std::to_string(change));
        EXPECT_EQ(cell_of_only_line(looks, fds), std::to_string(23 + change));
        EXPECT_EQ(cell_of_only_line(looks, rss_growth), sign + std::to_string(change));
    }
}

TEST(process_table_text, process_that_came_is_new_and_has_the_share_of_its_life) {
    process_sample fresh = sample_of(5);
    fresh.stat.start_ticks = 150000;
    fresh.stat.cpu_ticks = 100;
    fresh.taken_ms = 1504000;
    two_looks looks;
    looks.add(1, fresh);
    const std::vector<std::string> words = words_of(lines_of(looks).at(0));
    EXPECT_EQ(words[share], "25.0%");
    EXPECT_EQ(words[rss_growth], "new");
    EXPECT_EQ(words[fd_growth], "new");
    EXPECT_EQ(words[state], "S");
}

TEST(process_table_text, new_process_that_seems_to_start_later_has_no_share) {
    process_sample fresh = sample_of(5);
    fresh.stat.start_ticks = fresh.taken_ms / 10 + 1;
    fresh.stat.cpu_ticks = 1;
    two_looks looks;
    looks.add(1, fresh);
    EXPECT_EQ(cell_of_only_line(looks, share), "0.0%");
}

TEST(process_table_text, process_that_has_gone_shows_what_the_first_look_knew) {
    two_looks looks;
    looks.add(0, sample_of(812), "/usr/bin/app -x");
    const std::string rss_text = std::to_string(5120);
    EXPECT_EQ(words_of(lines_of(looks).at(0)),
              (std::vector<std::string>{"812", "1", "root", "gone", "4", "0:10.00", "-", rss_text, "-", "23",
                                        "-", "app", "/usr/bin/app", "-x"}));
}

TEST(process_table_text, process_may_not_have_gone_if_a_look_has_left_some_out) {
    two_looks looks;
    looks.add(0, sample_of(5));
    EXPECT_EQ(cell_of_only_line(looks, state), "gone");
    looks.is_partial = true;
    EXPECT_EQ(cell_of_only_line(looks, state), "?");
}

TEST(process_table_text, is_sorted_by_pid) {
    two_looks looks;
    for (pid_t number : {1, 5, 9, 30}) {
        looks.add(0, sample_of(number));
    }
    for (pid_t number : {2, 5, 30, 100000}) {
        looks.add(1, later(sample_of(number)));
    }
    std::string order;
    for (const std::string& line : lines_of(looks)) {
        order += words_of(line)[pid] + words_of(line)[fd_growth] + " ";
    }
    EXPECT_EQ(order, "1- 2new 5+0 9- 30+0 100000new ");
}

TEST(process_table_text, recycled_pid_is_two_processes) {
    process_sample next = later(sample_of(5));
    next.stat.start_ticks = 150500;
    next.stat.cpu_ticks = 20;
    two_looks looks;
    looks.add(0, sample_of(5), "old");
    looks.add(0, sample_of(6), "six");
    looks.add(1, next, "next");
    looks.add(1, later(sample_of(6)), "six");
    const std::vector<std::string> lines = lines_of(looks);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(words_of(lines[0])[state], "gone");
    EXPECT_EQ(words_of(lines[0])[command], "old");
    EXPECT_EQ(words_of(lines[1])[rss_growth], "new");
    EXPECT_EQ(words_of(lines[1])[command], "next");
    EXPECT_EQ(words_of(lines[1])[share], "4.0%");
    EXPECT_EQ(words_of(lines[2])[fd_growth], "+0");
}

TEST(process_table_text, long_names_are_cut) {
    process_sample sample = sample_of(5);
    strcpy(sample.stat.name, "kworker/0:1-events_long");
    two_looks looks;
    looks.add(1, sample, "[kworker/0:1-events_long]");
    EXPECT_EQ(cell_of_only_line(looks, name), "kworker/0:1-eve");
    EXPECT_EQ(cell_of_only_line(looks, command), "[kworker/0:1-events_long]");
}

TEST(process_table_text, control_characters_are_replaced) {
    process_sample sample = sample_of(5);
    strcpy(sample.stat.name, "a\nb\x7f");
    two_looks looks;
    looks.add(1, sample, "sh -c\ttrue\n\x1b[2J");
    const std::vector<std::string> lines = lines_of(looks);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(" a?b?            sh -c?true??[2J")) << lines[0];
}

TEST(process_table_text, users_have_the_names_of_the_password_file) {
    const char users[] =
        "+::::\nbad:x:\n0:x:5:\nroot:x:0:0:root:/root:/bin/sh\n\nno colons\n:\n"
        "web::33:33::/:\nadmin:x:1000:100::/:\n";
    EXPECT_EQ(user_of(0, users), "root");
    EXPECT_EQ(user_of(33, users), "web");
    EXPECT_EQ(user_of(1000, users), "admin");
    EXPECT_EQ(user_of(100, users), "100");
    EXPECT_EQ(user_of(1, users), "1");
    EXPECT_EQ(user_of(4294967295u, users), "4294967295");
    EXPECT_EQ(user_of(0, ""), "0");
}

TEST(process_table_text, end_of_a_cut_password_file_names_nobody) {
    EXPECT_EQ(user_of(10, "admin:x:10"), "10");
    EXPECT_EQ(user_of(0, "admin:x:"), "0");
    EXPECT_EQ(user_of(0, "admin:x"), "0");
}

TEST(process_table_text, long_user_names_are_cut) {
    const std::string users = std::string(300, 'u') + ":x:7:7::/:\n";
    EXPECT_EQ(user_of(7, users.c_str()), "uuuuuuuuuu");
}

TEST(stream_process_table, stores_the_table) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_archive archive;
    const int code = run_in_private_world([&] {
        two_looks looks;
        process_sample sample = sample_of(5);
        sample.uid = 77;
        looks.add(1, sample);
        return install_file("/etc/passwd", "camera:x:77:77::/:\n")
                   ? stream_process_table(archive.handle(), &looks)
                   : 9;
    });
    EXPECT_EQ(code, 0);
    tar_listing listing = archive.finish();
    ASSERT_EQ(listing.names(), std::vector<std::string>{"processes.txt"});
    EXPECT_NE(listing.entries[0].data.find(" camera "), std::string::npos);
}

TEST(stream_process_table, notes_the_error_of_a_look_instead) {
    test_archive archive;
    manifest list;
    manifest_begin(&list, archive.handle());
    two_looks looks;
    looks.add(1, sample_of(5));
    looks.error = EMFILE;
    EXPECT_EQ(stream_process_table(archive.handle(), &looks), 0);
    manifest_store(&list, archive.handle());
    tar_listing listing = archive.finish();
    ASSERT_EQ(listing.names(), std::vector<std::string>{"manifest.txt"});
    EXPECT_NE(listing.entries[0].data.find("processes.txt: Too many open files\n"), std::string::npos);
}

TEST(stream_process_table, notes_that_memory_ran_out) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    test_archive archive;
    manifest list;
    manifest_begin(&list, archive.handle());
    two_looks looks;
    looks.add(1, sample_of(5));
    int result;
    {
        scoped_memory_shortage none;
        result = stream_process_table(archive.handle(), &looks);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(list.errors, 1u);
    manifest_store(&list, archive.handle());
    EXPECT_EQ(archive.finish().names(), std::vector<std::string>{"manifest.txt"});
}

TEST(stream_process_table, returns_1_if_the_reader_is_gone) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    tar_handle* t = tar_new(full.get(), nullptr);
    const two_looks looks;
    EXPECT_EQ(stream_process_table(t, &looks), 1);
    tar_abandon(t);
}
