#include "trace/syscall_names.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace {

std::string name_of(int number) {
    return syscall_names[static_cast<size_t>(number - o32_first)];
}

}  // namespace

TEST(syscall_names, o32_calls_have_their_numbers) {
    EXPECT_EQ(name_of(4000), "syscall");
    EXPECT_EQ(name_of(4001), "exit");
    EXPECT_EQ(name_of(4002), "fork");
    EXPECT_EQ(name_of(4003), "read");
    EXPECT_EQ(name_of(4004), "write");
    EXPECT_EQ(name_of(4005), "open");
    EXPECT_EQ(name_of(4006), "close");
    EXPECT_EQ(name_of(4102), "socketcall");
    EXPECT_EQ(name_of(4166), "nanosleep");
    EXPECT_EQ(name_of(4210), "mmap2");
    EXPECT_EQ(name_of(4246), "exit_group");
    EXPECT_EQ(name_of(4278), "waitid");
    EXPECT_EQ(name_of(4280), "add_key");
    EXPECT_EQ(name_of(4288), "openat");
    EXPECT_EQ(name_of(4333), "perf_counter_open");
}

TEST(syscall_names, o32_calls_have_distinct_names) {
    std::set<std::string> names;
    for (int number = o32_first; number < o32_first + o32_calls; number++) {
        names.insert(name_of(number));
    }
    EXPECT_EQ(names.size(), static_cast<size_t>(o32_calls));
}

TEST(syscall_names, lists_of_the_other_interfaces_follow_with_their_markers) {
    EXPECT_EQ(name_of(4334), "Linux_syscalls");
    EXPECT_EQ(name_of(4335), "O32_Linux");
    EXPECT_EQ(name_of(4336), "O32_Linux_syscalls");
    EXPECT_EQ(name_of(4337), "Linux");
    EXPECT_EQ(name_of(4338), "read");
    EXPECT_EQ(name_of(4339), "write");
    EXPECT_EQ(name_of(4340), "open");
    EXPECT_EQ(name_of(4928), "perf_counter_open");
    EXPECT_EQ(name_of(4929), "Linux_syscalls");
    EXPECT_EQ(name_of(4930), "N32_Linux");
    EXPECT_EQ(name_of(4931), "N32_Linux_syscalls");
    int n64_end = o32_first;
    while (n64_end < 4931 && name_of(n64_end) != "64_Linux") {
        n64_end++;
    }
    ASSERT_LT(n64_end, 4931);
    EXPECT_EQ(name_of(n64_end - 2), "perf_counter_open");
    EXPECT_EQ(name_of(n64_end - 1), "Linux_syscalls");
    EXPECT_EQ(name_of(n64_end + 1), "64_Linux_syscalls");
    EXPECT_EQ(name_of(n64_end + 2), "Linux");
    EXPECT_EQ(name_of(n64_end + 3), "read");
}

TEST(syscall_names, no_name_is_empty) {
    for (int number = o32_first; number < o32_first + syscall_count; number++) {
        EXPECT_NE(name_of(number), "") << number;
    }
}

TEST(socketcall_names, are_indexed_by_socketcall_number) {
    EXPECT_STREQ(socketcall_names[0], "");
    EXPECT_STREQ(socketcall_names[1], "socket");
    EXPECT_STREQ(socketcall_names[8], "socketpair");
    EXPECT_STREQ(socketcall_names[12], "recvfrom");
    EXPECT_STREQ(socketcall_names[18], "accept4");
    for (size_t i = 19; i < socketcall_names.size(); i++) {
        EXPECT_STREQ(socketcall_names[i], "");
    }
}
