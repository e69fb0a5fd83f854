// Counting descriptors of a process that goes while they are counted.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "proc/proc_fd.h"
#include "tests/unit/support/temp_dir.h"

namespace {

int links_until_gone = 0;
std::string folder_that_goes;

}  // namespace

// Replaces the C library's function in this whole program: the folder vanishes between two links.
extern "C" ssize_t readlinkat(int dir_fd, const char* name, char* buf, size_t len) noexcept {
    if (links_until_gone > 0 && --links_until_gone == 0) {
        std::error_code ignored;
        std::filesystem::remove_all(folder_that_goes, ignored);
    }
    return syscall(SYS_readlinkat, dir_fd, name, buf, len);
}

TEST(proc_nr_fd2, counts_are_zero_when_the_process_goes_in_the_middle) {
    for (int position : {1, 2, 3}) {
        temp_dir dir;
        folder_that_goes = dir.make_folder("5");
        dir.make_folder("5/fd");
        for (const char* fd : {"0", "1", "2"}) {
            ASSERT_EQ(symlink("socket:[1]", dir.path("5/fd/" + std::string(fd)).c_str()), 0);
        }
        int sockets = -5;
        int pipes = -5;
        EXPECT_EQ(proc_nr_fd2_at(dir.path().c_str(), 5, &sockets, &pipes), 3);
        EXPECT_EQ(sockets, 3);
        links_until_gone = position;
        EXPECT_EQ(proc_nr_fd2_at(dir.path().c_str(), 5, &sockets, &pipes), 0);
        EXPECT_EQ(sockets, 0);
        EXPECT_EQ(pipes, 0);
        EXPECT_EQ(links_until_gone, 0);
    }
}
