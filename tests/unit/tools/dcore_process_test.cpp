#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/unique_fd.h"
#include "tools/dcore/process.h"

namespace {

constexpr std::string_view stat_line =
    "812 (a) (b c) S 1 800 799 34816 -1 4194560 10 11 12 13 1401 1502 1603 1704 20 -5 3 0 12345 0 0\n";

}  // namespace

TEST(dcore_process_stat, has_every_field) {
    process_stat stat;
    ASSERT_TRUE(process_parse_stat(stat_line, &stat));
    EXPECT_EQ(stat.name, "a) (b c");
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.parent, 1);
    EXPECT_EQ(stat.group, 800);
    EXPECT_EQ(stat.session, 799);
    EXPECT_EQ(stat.flags, 4194560u);
    EXPECT_EQ(stat.user, 1401u);
    EXPECT_EQ(stat.system, 1502u);
    EXPECT_EQ(stat.children_user, 1603u);
    EXPECT_EQ(stat.children_system, 1704u);
    EXPECT_EQ(stat.nice, -5);
    EXPECT_EQ(stat.threads, 3u);
}

TEST(dcore_process_stat, rejects_any_shorter_text_and_changes_nothing) {
    size_t enough = stat_line.find(" 3 0 12345") + 2;
    for (size_t length = 0; length < enough; length++) {
        process_stat stat;
        stat.parent = 77;
        EXPECT_FALSE(process_parse_stat(stat_line.substr(0, length), &stat)) << length;
        EXPECT_EQ(stat.parent, 77);
    }
}

TEST(dcore_process_status, has_every_field) {
    process_status status;
    ASSERT_TRUE(process_parse_status(
        "Name:\tx\nTgid:\t812\nPid:\t813\nTracerPid:\t9\nUid:\t7\t8\t9\t10\nGid:\t5\t6\n", &status));
    EXPECT_EQ(status.process, 812);
    EXPECT_EQ(status.tracer, 9);
    EXPECT_EQ(status.uid, 7u);
    EXPECT_EQ(status.gid, 5u);
}

TEST(dcore_process_status, is_malformed_without_a_process) {
    process_status status;
    EXPECT_FALSE(process_parse_status("", &status));
    EXPECT_FALSE(process_parse_status("Tgid:\tx\n", &status));
    EXPECT_FALSE(process_parse_status("Name:\tx\n", &status));
}

TEST(dcore_process_filter, is_hexadecimal_with_the_kernels_default) {
    EXPECT_EQ(process_parse_filter("00000033\n"), 0x33u);
    EXPECT_EQ(process_parse_filter("0000007f\n"), 0x7fu);
    EXPECT_EQ(process_parse_filter(""), 0x33u);
}

TEST(dcore_process_read, refuses_itself_and_missing_processes) {
    process_facts facts;
    EXPECT_EQ(process_read(getpid(), &facts), "is the dumper itself");
    EXPECT_EQ(process_read(0x7fffffff, &facts), "no such process");
}

TEST(dcore_process_reads, is_true_only_with_the_reading_end) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    unique_fd out(ends[0]), in(ends[1]);
    EXPECT_TRUE(process_reads(getpid(), in.get()));
    out.reset();
    EXPECT_FALSE(process_reads(getpid(), in.get()));
    EXPECT_FALSE(process_reads(getpid(), -1));
}
