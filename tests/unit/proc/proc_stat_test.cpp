#include "proc/proc_stat.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "common/small_file.h"

namespace {

// The fields after the state of a process with 3 threads, 12 + 30 ticks, started at tick 777, 55 pages.
constexpr char fields[] =
    " 17 17 17 34816 -1 4194304 100 0 1 0 12 30 5 6 20 -5 3 0 777 4096000 55 1844674407 1 1\n";

}  // namespace

TEST(proc_stat_parse, finds_the_fields) {
    proc_stat stat = {};
    ASSERT_TRUE(proc_stat_parse((std::string("42 (app) S") + fields).c_str(), &stat));
    EXPECT_STREQ(stat.name, "app");
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 17);
    EXPECT_EQ(stat.threads, 3u);
    EXPECT_EQ(stat.cpu_ticks, 42u);
    EXPECT_EQ(stat.start_ticks, 777u);
    EXPECT_EQ(stat.resident_pages, 55u);
}

TEST(proc_stat_parse, name_may_hold_anything) {
    for (const char* name : {"a b", "(x) R 1 2", ")", "", "a\n1 (b) Z", ") ) ("}) {
        proc_stat stat = {};
        ASSERT_TRUE(proc_stat_parse(("42 (" + std::string(name) + ") S" + fields).c_str(), &stat)) << name;
        EXPECT_STREQ(stat.name, name);
        EXPECT_EQ(stat.state, 'S');
        EXPECT_EQ(stat.ppid, 17);
    }
}

TEST(proc_stat_parse, cuts_long_names) {
    proc_stat stat = {};
    ASSERT_TRUE(proc_stat_parse(("42 (" + std::string(63, 'k') + ") I" + fields).c_str(), &stat));
    EXPECT_EQ(stat.name, std::string(31, 'k'));
    EXPECT_EQ(stat.state, 'I');
}

TEST(proc_stat_parse, times_have_64_bits) {
    proc_stat stat = {};
    ASSERT_TRUE(proc_stat_parse(
        "1 (a) R 0 0 0 0 0 0 0 0 0 0 5000000000 7000000000 0 0 20 0 1 0 99000000000 0 1 ", &stat));
    EXPECT_EQ(stat.cpu_ticks, 12000000000u);
    EXPECT_EQ(stat.start_ticks, 99000000000u);
}

TEST(proc_stat_parse, refuses_texts_that_are_not_whole) {
    const std::string whole = std::string("42 (app) S") + fields;
    const size_t needed = whole.find(" 1844674407");
    for (size_t length = 0; length < needed - 2; length++) {
        proc_stat stat = {};
        EXPECT_FALSE(proc_stat_parse(whole.substr(0, length).c_str(), &stat)) << length;
    }
    proc_stat stat = {};
    EXPECT_TRUE(proc_stat_parse(whole.substr(0, needed).c_str(), &stat));
    EXPECT_FALSE(proc_stat_parse(")(", &stat));
}

TEST(proc_stat_parse, reads_what_the_kernel_writes) {
    char text[1024];
    ASSERT_GT(small_file_text("/proc/self/stat", text, sizeof text), 0);
    proc_stat stat = {};
    ASSERT_TRUE(proc_stat_parse(text, &stat));
    EXPECT_EQ(stat.ppid, getppid());
    EXPECT_EQ(stat.state, 'R');
    EXPECT_GE(stat.threads, 1u);
    EXPECT_GT(stat.resident_pages, 10u);
    EXPECT_GT(stat.start_ticks, 0u);
}

TEST(proc_stat, ticks_are_those_of_the_kernel) {
    EXPECT_EQ(sysconf(_SC_CLK_TCK), static_cast<long>(proc_ticks_per_second));
}

TEST(proc_status_uid, is_the_effective_user) {
    EXPECT_EQ(proc_status_uid("Name:\tx\nUid:\t1000\t33\t1000\t1000\nGid:\t5\t6\t7\t8\n"), 33u);
}

TEST(proc_status_uid, is_minus_1_if_there_is_none) {
    EXPECT_EQ(proc_status_uid(""), static_cast<uid_t>(-1));
    EXPECT_EQ(proc_status_uid("Name:\tUid:\t5\t6\n"), static_cast<uid_t>(-1));
}

TEST(proc_status_uid, reads_what_the_kernel_writes) {
    char text[4096];
    ASSERT_GT(small_file_text("/proc/self/status", text, sizeof text), 0);
    EXPECT_EQ(proc_status_uid(text), geteuid());
}

TEST(proc_status_number, is_the_number_of_the_line_with_the_key) {
    const char* text = "Name:\tVmRSS: 5\nVmHWM:\t    9999 kB\nVmRSS:\t    1740 kB\n";
    EXPECT_EQ(proc_status_number(text, "\nVmRSS:", 7), 1740u);
    EXPECT_EQ(proc_status_number("Name:\tkthreadd\n", "\nVmRSS:", 7), 7u);
}
