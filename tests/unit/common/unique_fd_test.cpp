#include "common/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

#include "tests/unit/support/children.h"

namespace {

int open_null() {
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

}  // namespace

TEST(unique_fd, owns_nothing_by_default) {
    unique_fd fd;
    EXPECT_EQ(fd.get(), -1);
    EXPECT_FALSE(fd);
}

TEST(unique_fd, closes_at_the_end_of_its_life) {
    int number;
    {
        unique_fd fd(open_null());
        number = fd.get();
        EXPECT_TRUE(fd);
        EXPECT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(unique_fd, descriptor_zero_is_owned) {
    EXPECT_TRUE(exited_with(run_in_child([] {
                                close(0);
                                unique_fd fd(open_null());
                                if (fd.get() != 0 || !fd) {
                                    return 1;
                                }
                                fd.reset();
                                return is_open(0) ? 2 : 0;
                            }),
                            0));
}

TEST(unique_fd, closing_keeps_errno) {
    unique_fd stale(open_null());
    close(stale.get());
    errno = ERANGE;
    stale.reset();
    EXPECT_EQ(errno, ERANGE);
}

TEST(unique_fd, move_transfers_the_descriptor) {
    unique_fd from(open_null());
    int number = from.get();
    unique_fd to(std::move(from));
    EXPECT_EQ(from.get(), -1);  // NOLINT: the moved-from state is tested
    EXPECT_EQ(to.get(), number);
    EXPECT_TRUE(is_open(number));
}

TEST(unique_fd, move_assign_closes_the_old_one) {
    unique_fd from(open_null());
    unique_fd to(open_null());
    int moved = from.get();
    int replaced = to.get();
    to = std::move(from);
    EXPECT_FALSE(is_open(replaced));
    EXPECT_EQ(to.get(), moved);
    EXPECT_TRUE(is_open(moved));
    EXPECT_FALSE(from);  // NOLINT: as above
}

TEST(unique_fd, survives_a_move_to_itself) {
    unique_fd fd(open_null());
    unique_fd& same = fd;
    int number = fd.get();
    fd = std::move(same);
    EXPECT_EQ(fd.get(), number);
    EXPECT_TRUE(is_open(number));
}

TEST(unique_fd, release_does_not_close) {
    unique_fd fd(open_null());
    int number = fd.release();
    EXPECT_FALSE(fd);
    fd.reset();
    EXPECT_TRUE(is_open(number));
    close(number);
}

TEST(unique_fd, reset_closes_the_old_and_keeps_the_new_one) {
    unique_fd fd(open_null());
    int old = fd.get();
    int fresh = open_null();
    fd.reset(fresh);
    EXPECT_FALSE(is_open(old));
    EXPECT_EQ(fd.get(), fresh);
    EXPECT_TRUE(is_open(fresh));
}

TEST(unique_fd, reset_to_the_same_number_keeps_it_open) {
    unique_fd fd(open_null());
    fd.reset(fd.get());
    EXPECT_TRUE(is_open(fd.get()));
}

TEST(unique_dir, closes_its_directory) {
    int before = count_open_fds();
    {
        unique_dir dir(opendir("/"));
        ASSERT_TRUE(dir);
        EXPECT_EQ(count_open_fds(), before + 1);
    }
    EXPECT_EQ(count_open_fds(), before);
}

TEST(unique_file, closes_its_stream) {
    int before = count_open_fds();
    {
        unique_file file(fopen("/dev/null", "re"));
        ASSERT_TRUE(file);
        EXPECT_EQ(count_open_fds(), before + 1);
    }
    EXPECT_EQ(count_open_fds(), before);
}

TEST(malloc_array, elements_are_zero_until_they_are_set) {
    malloc_array<long> numbers = calloc_array<long>(3);
    ASSERT_TRUE(numbers);
    numbers[1] = 7;
    EXPECT_EQ(numbers[0], 0);
    EXPECT_EQ(numbers[1], 7);
    EXPECT_EQ(numbers[2], 0);
}
