#include "monitor/rtrace_disks.h"

#include <errno.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "tests/unit/monitor/rtrace_records.h"
#include "tests/unit/support/children.h"

namespace {

const std::string heading = "Filesystem          \tUsed\tAvail\tMounted on\n";

std::atomic<int> asked{0};
std::atomic<bool> hanging{false};

// The answer depends on the mount point's name. Does not return for names in /hang* while `hanging` is set.
int fake_statfs(const char* path, struct statfs* result) {
    asked++;
    while (strncmp(path, "/hang", 5) == 0 && hanging) {
        usleep(1000);
    }
    if (strncmp(path, "/bad", 4) == 0) {
        errno = EACCES;
        return -1;
    }
    *result = {};
    result->f_bsize = 4096;
    result->f_blocks = 1000;
    result->f_bfree = 600;
    result->f_bavail = 500;
    if (strcmp(path, "/huge") == 0) {
        result->f_blocks = (5ULL << 30) / 4096 + 10;  // 5 GiB and 10 blocks
        result->f_bfree = 10;
        result->f_bavail = (1ULL << 40) / 4096 + 3;  // 1 TiB and 3 blocks
    }
    return 0;
}

#ifdef __SANITIZE_THREAD__
constexpr int threads_at_rest = 2;  // the sanitizer has a thread of its own, which may start late
#else
constexpr int threads_at_rest = 1;
#endif

class rtrace_disks : public testing::Test {
protected:
    void SetUp() override {
        asked = 0;
        hanging = false;
        mounts_.statfs_call = fake_statfs;
    }
    void TearDown() override {
        hanging = false;
        rtrace_forget_mounts(mounts_);
        EXPECT_TRUE(eventually([] { return threads() <= threads_at_rest; })) << threads();
    }

    static int threads() {
        int count = 0;
        unique_dir tasks(opendir("/proc/self/task"));
        while (const dirent* task = tasks ? readdir(tasks.get()) : nullptr) {
            count += task->d_name[0] != '.';
        }
#ifdef __SANITIZE_THREAD__
        count--;
#endif
        return count;
    }

    // The table's text for these lines of /proc/mounts.
    std::string table_of(std::string_view lines) {
        root_.write_file("proc/mounts", lines);
        collected_sink to;
        EXPECT_TRUE(rtrace_sample_disks(to.sink(), mounts_, root_.path().c_str()));
        std::vector<trace_record> records = records_of(to.stream());
        EXPECT_EQ(records.size(), 1u);
        expect_records(to.stream(), {record_of(9, records.at(0).data, 0)});
        return records.at(0).data;
    }

    // Makes `count` mounts hang. Each is asked by another trace, whose client has gone, so no trace waits.
    // Returns their lines.
    std::string hang_at_once(int count) {
        std::string lines;
        for (int i = 0; i < count; i++) {
            std::string line = "h /hang" + std::to_string(i) + " ext4 rw 0 0\n";
            root_.write_file("proc/mounts", line);
            rtrace_mounts other = {};
            other.statfs_call = fake_statfs;
            closed_sink gone;
            EXPECT_FALSE(rtrace_sample_disks(gone.sink(), other, root_.path().c_str()));
            rtrace_forget_mounts(other);
            lines += line;
        }
        return lines;
    }

    temp_dir root_;
    rtrace_mounts mounts_ = {};
};

}  // namespace

TEST_F(rtrace_disks, begin_with_a_heading_of_43_characters) {
    EXPECT_EQ(heading.size(), 43u);
    EXPECT_EQ(table_of(""), heading);
}

TEST_F(rtrace_disks, without_a_list_of_mounts_give_only_the_heading) {
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_disks(to.sink(), mounts_, "/nonexistent"));
    expect_records(to.stream(), {record_of(9, heading, 0)});
}

TEST_F(rtrace_disks, have_a_line_for_each_mount) {
    EXPECT_EQ(table_of("/dev/sda1 / ext4 rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n"),
              heading + "/dev/sda1           \t1600\t2000\t/\ntmpfs               \t1600\t2000\t/tmp\n");
}

TEST_F(rtrace_disks, keep_a_long_source_whole_and_decode_blanks) {
    EXPECT_EQ(table_of("/dev/disk/by-id/very-long-name-1 /a\\040b ext4 rw 0 0\n"),
              heading + "/dev/disk/by-id/very-long-name-1\t1600\t2000\t/a b\n");
}

TEST_F(rtrace_disks, above_4_gib_wrap) {
    // 5 GiB used are shown as 1 GiB; 1 TiB and 12 KiB available are shown as 12 KiB.
    EXPECT_EQ(table_of("d /huge ext4 rw 0 0\n"), heading + "d                   \t1048576\t12\t/huge\n");
}

TEST_F(rtrace_disks, over_a_network_are_not_asked) {
    EXPECT_EQ(table_of("host:/export /bad1 nfs rw 0 0\n//host/share /bad2 cifs rw 0 0\n"
                       "//host/share /bad3 smbfs rw 0 0\n"),
              heading);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(table_of("//host/share /x ext4 rw 0 0\n"), heading + "//host/share        \t1600\t2000\t/x\n");
    EXPECT_EQ(table_of("/host/share /x cifs rw 0 0\n"), heading + "/host/share         \t1600\t2000\t/x\n");
}

TEST_F(rtrace_disks, whose_statfs_fails_are_skipped) {
    EXPECT_EQ(table_of("a /bad ext4 rw 0 0\nb /good ext4 rw 0 0\n"),
              heading + "b                   \t1600\t2000\t/good\n");
}

TEST_F(rtrace_disks, that_fill_the_record_are_cut_there) {
    std::string line = "d /" + std::string(3000, 'm') + " ext4 rw 0 0\n";
    std::string lines;
    for (int i = 0; i < 80; i++) {
        lines += line;
    }
    std::string text = table_of(lines);
    EXPECT_EQ(text.size(), 204800u);
    std::string one = "d                   \t1600\t2000\t/" + std::string(3000, 'm') + "\n";
    std::string all = heading;
    while (all.size() < text.size()) {
        all += one;
    }
    EXPECT_EQ(text, all.substr(0, text.size()));
    EXPECT_LT(asked, 80);
}

TEST_F(rtrace_disks, that_hang_are_skipped_and_not_asked_again_until_they_answer) {
    hanging = true;
    constexpr std::string_view lines = "h /hang ext4 rw 0 0\ng /good ext4 rw 0 0\n";
    const std::string good = "g                   \t1600\t2000\t/good\n";
    auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(table_of(lines), heading + good);
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(rtrace_mount_patience_ms));
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(table_of(lines), heading + good);
    EXPECT_EQ(asked, 3);
    hanging = false;
    // The abandoned thread ends; the trace's present thread stays.
    EXPECT_TRUE(eventually([] { return threads() <= threads_at_rest + 1; }));
    EXPECT_EQ(table_of(lines), heading + "h                   \t1600\t2000\t/hang\n" + good);
}

TEST_F(rtrace_disks, that_answer_are_listed_after_any_number_that_hang) {
    hanging = true;
    std::string lines = hang_at_once(40);
    EXPECT_TRUE(eventually([] { return asked == 40; })) << asked;
    const std::string good = "g                   \t1600\t2000\t/good\n";
    EXPECT_EQ(table_of(lines + "h /hang ext4 rw 0 0\ng /good ext4 rw 0 0\n"), heading + good);
    EXPECT_EQ(asked, 42);
}

TEST_F(rtrace_disks, that_hang_are_asked_once_by_all_traces_together) {
    hanging = true;
    for (int trace = 0; trace < 20; trace++) {
        hang_at_once(1);
    }
    EXPECT_EQ(table_of("h /hang0 ext4 rw 0 0\n"), heading);
    EXPECT_TRUE(eventually([] { return asked == 1; })) << asked;
    // Another source at the same mount point is another mount.
    hanging = false;
    EXPECT_EQ(table_of("other /hang0 ext4 rw 0 0\n"), heading + "other               \t1600\t2000\t/hang0\n");
}

TEST_F(rtrace_disks, are_not_asked_once_the_limit_of_hanging_mounts_is_reached) {
    hanging = true;
    hang_at_once(rtrace_hanging_limit);
    EXPECT_EQ(table_of("g /good ext4 rw 0 0\n"), heading);
    EXPECT_TRUE(eventually([] { return asked == rtrace_hanging_limit; })) << asked;
}

TEST_F(rtrace_disks, that_hang_do_not_delay_the_end_after_the_client_leaves) {
    hanging = true;
    std::string lines;
    for (int i = 0; i < 60; i++) {
        lines += "h /hang" + std::to_string(i) + " ext4 rw 0 0\n";
    }
    root_.write_file("proc/mounts", lines);
    test_socketpair client;
    std::string buffer(rtrace_sink::buffer_size, '\0');
    client.a.reset();
    auto begun = std::chrono::steady_clock::now();
    EXPECT_FALSE(rtrace_sample_disks({client.b.get(), buffer.data()}, mounts_, root_.path().c_str()));
    // Half of the time that waiting for each mount would take.
    EXPECT_LT(std::chrono::steady_clock::now() - begun,
              std::chrono::milliseconds(30 * rtrace_mount_patience_ms));
}

TEST_F(rtrace_disks, fail_without_a_reader) {
    closed_sink to;
    EXPECT_FALSE(rtrace_sample_disks(to.sink(), mounts_, root_.path().c_str()));
}

TEST_F(rtrace_disks, of_this_machine_are_listed) {
    mounts_.statfs_call = nullptr;
    struct statfs usage;
    ASSERT_EQ(statfs(root_.path().c_str(), &usage), 0);
    std::string text = table_of("src " + root_.path() + " any rw 0 0\nnone /nonexistent/x any rw 0 0\n");
    unsigned long blocks = static_cast<unsigned long>(usage.f_blocks);
    EXPECT_EQ(text.substr(0, heading.size() + 20), heading + "src                 ") << blocks;
    EXPECT_EQ(text.substr(text.rfind('\t') + 1), root_.path() + "\n");
}

TEST_F(rtrace_disks, leave_no_descriptor_open) {
    std::set<int> before = open_fds();
    table_of("a /bad ext4 rw 0 0\nb /good ext4 rw 0 0\n");
    rtrace_forget_mounts(mounts_);
    EXPECT_TRUE(eventually([&before] { return open_fds() == before; }));
}
