#include "common/proc_path.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

TEST(proc_path, names_a_file_of_a_process) {
    EXPECT_STREQ(proc_path(1, "status").text, "/proc/1/status");
    EXPECT_STREQ(proc_path(2147483647, "fd/12").text, "/proc/2147483647/fd/12");
    EXPECT_EQ(access(proc_path(getpid(), "stat").text, R_OK), 0);
}

TEST(proc_path, takes_another_root) {
    EXPECT_STREQ(proc_path(7, "stat", "/tmp/tree").text, "/tmp/tree/7/stat");
}

TEST(proc_path, is_empty_if_it_is_too_long) {
    const std::string prefix = "/7/";
    const std::string longest(proc_path::capacity - 1 - prefix.size(), 'r');
    const proc_path fits(7, "", longest.c_str());
    EXPECT_TRUE(fits);
    EXPECT_EQ(fits.text, longest + prefix);
    const proc_path too_long(7, "s", longest.c_str());
    EXPECT_FALSE(too_long);
    EXPECT_STREQ(too_long.text, "");
}
