#include "common/safe_io.h"

#include <unistd.h>

#include <cerrno>

namespace {

constexpr unsigned copy_block = 16384;

bool is_passing(int error) {
    return error == EINTR || error == EAGAIN;
}

}  // namespace

ssize_t safe_read(int fd, void* buf, unsigned len) {
    unsigned done = 0;
    for (;;) {
        ssize_t got = read(fd, static_cast<char*>(buf) + done, len - done);
        if (got < 0) {
            if (is_passing(errno)) {
                continue;
            }
            return -1;
        }
        done += static_cast<unsigned>(got);
        if (got == 0 || done >= len) {
            return done;
        }
    }
}

ssize_t safe_write(int fd, const void* buf, unsigned len) {
    unsigned done = 0;
    while (done < len) {
        ssize_t put = write(fd, static_cast<const char*>(buf) + done, len - done);
        if (put >= 0) {
            done += static_cast<unsigned>(put);
        } else if (!is_passing(errno)) {
            return -1;
        }
    }
    return done;
}

int64_t safe_copyfd(int in_fd, int out_fd) {
    char block[copy_block];
    int64_t copied = 0;
    for (;;) {
        ssize_t got = read(in_fd, block, sizeof block);
        if (got == 0) {
            return copied;
        }
        if (got < 0) {
            continue;
        }
        if (safe_write(out_fd, block, static_cast<unsigned>(got)) >= 0) {
            copied += got;
        } else if (errno == EPIPE) {
            return -1;
        }
    }
}
