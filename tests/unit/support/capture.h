// Captures what code writes to a standard descriptor.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "common/unique_fd.h"

// The whole content of a seekable file, whatever its position.
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

// A file in memory with these bytes, positioned at its beginning.
inline unique_fd memory_file_with(const std::string& bytes) {
    unique_fd file = memory_file();
    EXPECT_EQ(write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
    return file;
}

// Points standard descriptor `fd` at `target` for the length of a block. The stdio buffers are flushed before
// and after, so that no text reaches the wrong file.
class redirection {
public:
    redirection(int fd, int target) : fd_(fd) {
        fflush(stdout);
        fflush(stderr);
        saved_ = unique_fd(fcntl(fd, F_DUPFD_CLOEXEC, 3));
        EXPECT_TRUE(saved_);
        EXPECT_EQ(dup2(target, fd), fd);
    }
    redirection(const redirection&) = delete;
    redirection& operator=(const redirection&) = delete;
    ~redirection() {
        fflush(stdout);
        fflush(stderr);
        EXPECT_EQ(dup2(saved_.get(), fd_), fd_);
    }

private:
    int fd_;
    unique_fd saved_;
};

// Runs `work` with descriptor `standard_fd` (1 or 2) redirected to memory. Returns what was written to it.
template <typename Work>
std::string capture(int standard_fd, Work work) {
    unique_fd file = memory_file();
    {
        redirection into_memory(standard_fd, file.get());
        work();
    }
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
