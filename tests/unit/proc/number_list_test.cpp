#include "proc/number_list.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/temp_dir.h"

namespace {

std::vector<pid_t> listed(const temp_dir& folder, int capacity) {
    std::vector<pid_t> numbers(static_cast<size_t>(capacity));
    const int count = number_list(AT_FDCWD, folder.path().c_str(), numbers.data(), capacity);
    EXPECT_GE(count, 0);
    numbers.resize(static_cast<size_t>(std::max(count, 0)));
    return numbers;
}

}  // namespace

TEST(number_list, is_in_ascending_order) {
    temp_dir folder;
    for (int i = 0; i < 50; i++) {
        folder.make_folder(std::to_string(1 + i * 7919 % 50));
    }
    std::vector<pid_t> numbers = listed(folder, 100);
    ASSERT_EQ(numbers.size(), 50u);
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(numbers[static_cast<size_t>(i)], i + 1);
    }
}

TEST(number_list, ignores_other_names) {
    temp_dir folder;
    for (const char* name : {"7", "self", "x8", ".9", "-3", "12"}) {
        folder.make_folder(name);
    }
    EXPECT_EQ(listed(folder, 9), (std::vector<pid_t>{7, 12}));
}

TEST(number_list, stores_no_more_than_the_capacity) {
    temp_dir folder;
    for (int i = 1; i <= 9; i++) {
        folder.make_folder(std::to_string(i));
    }
    std::vector<pid_t> numbers = listed(folder, 4);
    EXPECT_EQ(numbers.size(), 4u);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
}

TEST(number_list, path_is_relative_to_the_directory) {
    temp_dir folder;
    folder.make_folder("task/5");
    unique_fd dir(open(folder.path().c_str(), O_PATH | O_CLOEXEC));
    pid_t numbers[2];
    EXPECT_EQ(number_list(dir.get(), "task", numbers, 2), 1);
    EXPECT_EQ(numbers[0], 5);
}

TEST(number_list, is_minus_1_if_the_folder_cannot_be_opened) {
    temp_dir folder;
    pid_t number;
    errno = 0;
    EXPECT_EQ(number_list(AT_FDCWD, folder.path("none").c_str(), &number, 1), -1);
    EXPECT_EQ(errno, ENOENT);
    few_fds_left none(0);
    EXPECT_EQ(number_list(AT_FDCWD, folder.path().c_str(), &number, 1), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST(number_list, closes_what_it_opens) {
    temp_dir folder;
    const int before = count_open_fds();
    pid_t number;
    (void)number_list(AT_FDCWD, folder.path().c_str(), &number, 1);
    (void)number_list(AT_FDCWD, folder.path("none").c_str(), &number, 1);
    EXPECT_EQ(count_open_fds(), before);
}
