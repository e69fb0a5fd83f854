#include "archive/member_name.h"

#include <gtest/gtest.h>
#include <limits.h>

#include <string>

#include "tests/unit/archive/archive_fixture.h"

namespace {

const char* const top = "debug-20261121-183403-c0/";

std::string in_folder(const std::string& folder, const std::string& file, unsigned long long number) {
    test_archive archive(top);
    return member_name_in_folder(archive.handle(), folder.c_str(), file.c_str(), number).text;
}

std::string of_process(const char* prefix, const std::string& program, pid_t pid, const char* file) {
    test_archive archive(prefix);
    return member_name_of_process(archive.handle(), program.c_str(), pid, file).text;
}

}  // namespace

TEST(member_name_in_folder, joins_folder_and_file_if_they_fit) {
    EXPECT_EQ(in_folder("proc/net/", "dev", 7), "proc/net/dev");
    const size_t left = 99 - std::string(top).size() - std::string("proc/net/").size();
    const std::string longest(left, 'n');
    EXPECT_EQ(in_folder("proc/net/", longest, 7), "proc/net/" + longest);
}

TEST(member_name_in_folder, longer_names_with_the_same_beginning_stay_distinct) {
    const size_t left = 99 - std::string(top).size() - std::string("proc/net/").size();
    for (size_t length : {left + 1, left + 2, size_t{255}}) {
        std::string one = in_folder("proc/net/", std::string(length, 'n') + "1", 4026531840);
        EXPECT_EQ(one, "proc/net/" + std::string(left - 11, 'n') + "~4026531840");
        EXPECT_NE(one, in_folder("proc/net/", std::string(length, 'n') + "2", 4026531841));
    }
}

TEST(member_name_in_folder, cuts_a_folder_that_is_too_long) {
    EXPECT_EQ(in_folder(std::string(98, 'd') + "/", "file", ULLONG_MAX).size(), 99u);
    EXPECT_EQ(in_folder(std::string(300, 'd') + "/", "file", 1).size(), 99u);
}

TEST(member_name_of_process, keeps_pid_and_file_whole) {
    for (pid_t pid : {1, 4194304, INT_MAX}) {
        for (size_t length : {0, 1, 50, 60, 80}) {
            std::string core = of_process(top, std::string(length, 'n'), pid, "core");
            std::string map = of_process(top, std::string(length, 'n'), pid, "fdmap");
            const std::string end = "." + std::to_string(pid) + "/";
            EXPECT_LE(std::string(top).size() + map.size(), 99u);
            EXPECT_EQ(core.substr(core.size() - end.size() - 4), end + "core");
            EXPECT_EQ(map.substr(map.size() - end.size() - 5), end + "fdmap");
            EXPECT_EQ(core.substr(0, core.size() - 4), map.substr(0, map.size() - 5)) << "one folder";
        }
    }
}

TEST(member_name_of_process, drops_the_program_if_the_prefix_leaves_no_space) {
    EXPECT_EQ(of_process(std::string(98, 'p').c_str(), "program", 12, "core"), ".12/core");
    EXPECT_EQ(of_process(std::string(300, 'p').c_str(), "program", 12, "fdmap"), ".12/fdmap");
}
