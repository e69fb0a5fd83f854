// Counts the descriptors of a process that ends during the count.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "proc/proc_fd.h"
#include "tests/unit/support/temp_dir.h"

namespace {

int links_until_removal = 0;
std::string vanishing_folder;

}  // namespace

// Replaces the C library's in the whole test program: removes the folder between the reads of two links.
extern "C" ssize_t readlinkat(int dir_fd, const char* name, char* buf, size_t len) noexcept {
    if (links_until_removal > 0 && --links_until_removal == 0) {
        std::error_code ignored;
        std::filesystem::remove_all(vanishing_folder, ignored);
    }
    return syscall(SYS_readlinkat, dir_fd, name, buf, len);
}

TEST(proc_nr_fd2, counts_are_zero_if_the_process_ends_during_the_count) {
    for (int position : {1, 2, 3}) {
        temp_dir dir;
        vanishing_folder = dir.make_folder("5");
        dir.make_folder("5/fd");
        for (const char* fd : {"0", "1", "2"}) {
            ASSERT_EQ(symlink("socket:[1]", dir.path("5/fd/" + std::string(fd)).c_str()), 0);
        }
        int sockets = -5;
        int pipes = -5;
        EXPECT_EQ(proc_nr_fd2_at(dir.path().c_str(), 5, &sockets, &pipes), 3);
        EXPECT_EQ(sockets, 3);
        links_until_removal = position;
        EXPECT_EQ(proc_nr_fd2_at(dir.path().c_str(), 5, &sockets, &pipes), 0);
        EXPECT_EQ(sockets, 0);
        EXPECT_EQ(pipes, 0);
        EXPECT_EQ(links_until_removal, 0);
    }
}
