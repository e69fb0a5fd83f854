// Pipes and socket pairs that close themselves, and readers that collect their output.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <utility>

#include "common/unique_fd.h"

// Reads `fd` to its end. A reset by the peer counts as the end.
inline std::string read_all(int fd) {
    std::string all;
    char block[65536];
    for (;;) {
        ssize_t got = read(fd, block, sizeof block);
        if (got > 0) {
            all.append(block, static_cast<size_t>(got));
        } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
            return all;
        }
    }
}

inline void set_nonblocking(int fd) {
    EXPECT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
}

inline bool is_cloexec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

struct test_pipe {
    explicit test_pipe(int flags = O_CLOEXEC) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, flags), 0);
        in = unique_fd(ends[1]);
        out = unique_fd(ends[0]);
    }
    unique_fd in;   // the writing side
    unique_fd out;  // the reading side

    // Closes the writing side and returns all unread bytes.
    std::string finish() {
        in.reset();
        return read_all(out.get());
    }
};

struct test_socketpair {
    explicit test_socketpair(int type = SOCK_STREAM) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        a = unique_fd(ends[0]);
        b = unique_fd(ends[1]);
    }
    unique_fd a;
    unique_fd b;
};

// Reads `fd` to its end on a thread of its own. text() waits for that end, so close the writing side first.
class reader_thread {
public:
    explicit reader_thread(unique_fd fd)
        : fd_(std::move(fd)), thread_([this] { all_ = read_all(fd_.get()); }) {}
    reader_thread(const reader_thread&) = delete;
    reader_thread& operator=(const reader_thread&) = delete;
    ~reader_thread() { join(); }

    const std::string& text() {
        join();
        return all_;
    }

private:
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    unique_fd fd_;
    std::string all_;
    std::thread thread_;
};
