// A process that runs out of descriptors.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <vector>

#include "common/unique_fd.h"

// Allows only `left` more descriptors to be opened for the length of a block. Programs that are executed have
// more free descriptors, because those that fill the table are close-on-exec.
class few_fds_left {
public:
    explicit few_fds_left(size_t left) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
        rlimit small = {128, saved_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &small), 0);
        for (unique_fd fd; (fd = unique_fd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)));) {
            filling_.push_back(std::move(fd));
        }
        filling_.resize(filling_.size() - left);
    }
    few_fds_left(const few_fds_left&) = delete;
    few_fds_left& operator=(const few_fds_left&) = delete;
    ~few_fds_left() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0); }

private:
    rlimit saved_ = {};
    std::vector<unique_fd> filling_;
};
