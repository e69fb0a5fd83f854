#include "common/unique_pipe.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/pipes.h"

TEST(pipe_open, connects_its_ends) {
    unique_pipe pipe = pipe_open();
    ASSERT_TRUE(pipe);
    EXPECT_EQ(write(pipe.write_end.get(), "text", 4), 4);
    pipe.write_end.reset();
    EXPECT_EQ(read_all(pipe.read_end.get()), "text");
}

TEST(pipe_open, both_ends_are_close_on_exec_and_have_the_flags) {
    unique_pipe pipe = pipe_open(O_NONBLOCK);
    for (const unique_fd* end : {&pipe.read_end, &pipe.write_end}) {
        EXPECT_TRUE(is_cloexec(end->get()));
        EXPECT_NE(fcntl(end->get(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST(pipe_open, closes_both_ends) {
    const std::set<int> before = open_fds();
    { unique_pipe pipe = pipe_open(); }
    EXPECT_EQ(open_fds(), before);
}

TEST(pipe_open, is_empty_without_free_descriptors) {
    few_fds_left one_left(1);
    errno = 0;
    unique_pipe pipe = pipe_open();
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(pipe);
    EXPECT_FALSE(pipe.write_end);
}
