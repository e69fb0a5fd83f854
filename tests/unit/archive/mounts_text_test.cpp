#include "archive/mounts_text.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>

#include "monitor/rtrace_asker.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

std::atomic<bool> hanging{false};

// The answer depends on the mount point's name. Does not return for names in /hang* while `hanging` is set.
int fake_statfs(const char* folder, struct statfs* usage) {
    while (strncmp(folder, "/hang", 5) == 0 && hanging) {
        usleep(1000);
    }
    *usage = {};
    if (strcmp(folder, "/bad") == 0 || strcmp(folder, "/b d") == 0) {
        errno = EACCES;
        return -1;
    }
    usage->f_bsize = 4096;
    usage->f_blocks = 1000;
    usage->f_bfree = 600;
    usage->f_bavail = 500;
    usage->f_ffree = 77;
    if (strcmp(folder, "/huge") == 0) {
        usage->f_blocks = (1ULL << 44) / 4096 + 10;
        usage->f_bfree = 10;
        usage->f_bavail = (1ULL << 40) / 4096 + 3;
        usage->f_ffree = 1ULL << 40;
    }
    if (strcmp(folder, "/fragments") == 0) {
        usage->f_bsize = 1 << 20;
        usage->f_frsize = 1024;
    }
    return 0;
}

class mounts_text : public testing::Test {
protected:
    void TearDown() override { hanging = false; }

    std::string text_of(const std::string& lines, int expected = 0, int client_fd = -1,
                        size_t limit = 100000) {
        const std::string path = folder_.write_file("mounts", lines);
        heap_text text = {.limit = limit};
        EXPECT_EQ(mounts_text_add(&text, path.c_str(), fake_statfs, client_fd), expected);
        return std::string(text.view());
    }

    temp_dir folder_;
    const std::string usual_ = " total_kib 4000 used_kib 1600 available_kib 2000 inodes_free 77\n";
};

}  // namespace

TEST_F(mounts_text, has_a_line_for_each_mount) {
    EXPECT_EQ(text_of("/dev/sda1 / ext4 rw,relatime 0 0\nhost:/export /net nfs ro 0 0\n"),
              "/dev/sda1 / ext4 rw,relatime" + usual_ + "host:/export /net nfs ro" + usual_);
    EXPECT_EQ(text_of(""), "");
}

TEST_F(mounts_text, has_sizes_above_4_gib) {
    EXPECT_EQ(text_of("d /huge ext4 rw 0 0\n"),
              "d /huge ext4 rw total_kib 17179869224 used_kib 17179869184 available_kib 1073741836 "
              "inodes_free 1099511627776\n");
}

TEST_F(mounts_text, counts_blocks_in_fragments_if_the_file_system_has_them) {
    EXPECT_EQ(text_of("d /fragments fuse rw 0 0\n"),
              "d /fragments fuse rw total_kib 1000 used_kib 400 available_kib 500 inodes_free 77\n");
}

TEST_F(mounts_text, says_that_a_file_system_fails) {
    EXPECT_EQ(text_of("d /bad ext4 rw 0 0\nd /good ext4 rw 0 0\n"),
              "d /bad ext4 rw not answering\nd /good ext4 rw" + usual_);
}

TEST_F(mounts_text, asks_for_decoded_names_and_writes_encoded_ones) {
    EXPECT_EQ(text_of("a\\040b /b\\040d ext4 rw 0 0\n"), "a\\040b /b\\040d ext4 rw not answering\n");
    EXPECT_EQ(text_of("a\\134b /t\\011n\\012\\040 ext4 rw\033 0 0\n").substr(0, 34),
              "a\\134b /t\\011n\\012\\040 ext4 rw\\033");
    EXPECT_EQ(text_of("\xc3\xa9\x7f /x ext4 rw 0 0\n").substr(0, 6), "\xc3\xa9\x7f /x");
}

TEST_F(mounts_text, has_long_names_whole) {
    const std::string line =
        "/dev/" + std::string(900, 's') + " /" + std::string(900, 'm') + " ext4 " + std::string(900, 'o');
    EXPECT_EQ(text_of(line + " 0 0\n"), line + usual_);
}

TEST_F(mounts_text, survives_lines_that_are_too_long_or_have_too_few_words) {
    const std::string text =
        text_of("d /" + std::string(10000, 'm') + " ext4 rw 0 0\nonly\n\nd /good ext4 rw 0 0\n");
    EXPECT_TRUE(text.ends_with("\nd /good ext4 rw" + usual_)) << text;
    EXPECT_NE(text.find("\nonly "), std::string::npos) << text;
}

TEST_F(mounts_text, does_not_wait_for_a_file_system_that_hangs) {
    hanging = true;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(text_of("h:/x /hang nfs rw 0 0\ng /good ext4 rw 0 0\n"),
              "h:/x /hang nfs rw not answering\ng /good ext4 rw" + usual_);
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(20));
    EXPECT_EQ(text_of("h:/x /hang nfs rw 0 0\n"), "h:/x /hang nfs rw not answering\n");
    hanging = false;
    EXPECT_TRUE(
        eventually([this] { return text_of("h:/x /hang nfs rw 0 0\n") == "h:/x /hang nfs rw" + usual_; }));
}

TEST_F(mounts_text, ends_if_the_reader_of_the_archive_is_gone) {
    hanging = true;
    test_pipe pipe;
    pipe.out.reset();
    const std::string text = text_of("h /hang1 nfs rw 0 0\nh /hang2 nfs rw 0 0\n", EPIPE, pipe.in.get());
    EXPECT_EQ(text.find("/hang2"), std::string::npos) << text;
}

TEST_F(mounts_text, ends_when_the_text_is_half_full) {
    std::string lines;
    for (int i = 0; i < 100; i++) {
        lines += "d /" + std::to_string(i) + " ext4 rw 0 0\n";
    }
    const std::string text = text_of(lines, EFBIG, -1, 4000);
    EXPECT_GT(text.size(), 2000u);
    EXPECT_LT(text.size(), 2200u);
    EXPECT_TRUE(text.ends_with(usual_));
}

TEST_F(mounts_text, reports_a_missing_list) {
    heap_text text = {.limit = 1000};
    EXPECT_EQ(mounts_text_add(&text, "/nonexistent/mounts", fake_statfs, -1), ENOENT);
    EXPECT_EQ(text.bytes.length, 0u);
}

TEST_F(mounts_text, without_descriptors_for_a_thread_has_the_mounts_alone) {
    const std::string path = folder_.write_file("mounts", "d /good ext4 rw 0 0\n");
    heap_text text = {.limit = 1000};
    {
        few_fds_left one(1);
        EXPECT_EQ(mounts_text_add(&text, path.c_str(), fake_statfs, -1), 0);
    }
    EXPECT_EQ(text.view(), "d /good ext4 rw not answering\n");
}

TEST_F(mounts_text, closes_the_list) {
    const std::set<int> before = open_fds();
    (void)text_of("d /good ext4 rw 0 0\n");
    EXPECT_TRUE(eventually([&] { return open_fds() == before; }));
}
