// What a piece of code writes to a standard descriptor.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "common/unique_fd.h"

// The whole content of a file that can be rewound, whatever its position is.
inline std::string content_of(int fd) {
    std::string all;
    char block[4096];
    for (;;) {
        ssize_t got = pread(fd, block, sizeof block, static_cast<off_t>(all.size()));
        if (got <= 0) {
            return all;
        }
        all.append(block, static_cast<size_t>(got));
    }
}

inline unique_fd memory_file() {
    unique_fd file(memfd_create("test", MFD_CLOEXEC));
    EXPECT_TRUE(file);
    return file;
}

// Runs `work` with descriptor `standard_fd` (1 or 2) pointing into memory and returns what arrived there.
// The stdio buffers are flushed on both sides, so only text of `work` is in it.
template <typename Work>
std::string capture(int standard_fd, Work work) {
    fflush(stdout);
    fflush(stderr);
    unique_fd saved(fcntl(standard_fd, F_DUPFD_CLOEXEC, 3));
    unique_fd file = memory_file();
    EXPECT_TRUE(saved);
    EXPECT_EQ(dup2(file.get(), standard_fd), standard_fd);
    work();
    fflush(stdout);
    fflush(stderr);
    EXPECT_EQ(dup2(saved.get(), standard_fd), standard_fd);
    return content_of(file.get());
}

template <typename Work>
std::string capture_stdout(Work work) {
    return capture(STDOUT_FILENO, work);
}

template <typename Work>
std::string capture_stderr(Work work) {
    return capture(STDERR_FILENO, work);
}
