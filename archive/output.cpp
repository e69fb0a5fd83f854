#include "archive/output.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "archive/phase.h"
#include "archive/tar.h"
#include "common/padding.h"
#include "common/safe_io.h"

namespace {

// A blocking write returns only when all has been taken; a reader of 1 kB/s takes this much in 16 s. A
// multiple of pad_ascii's lines.
constexpr size_t block_size = 16000;

// Whether the write of a block has `succeeded`, as the caller's result.
bool finish_block(tar_handle* t, bool succeeded) {
    if (succeeded) {
        output_progress();
    } else {
        output_failed(t);
    }
    return succeeded;
}

bool pad_with(tar_handle* t, int (*pad)(int fd, int count), int count) {
    for (int piece; count > 0; count -= piece) {
        piece = std::min(count, static_cast<int>(block_size));
        if (!finish_block(t, pad(t->fd, piece) == 0)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool output_write(tar_handle* t, const void* data, size_t length) {
    const char* bytes = static_cast<const char*>(data);
    for (size_t piece; length > 0; bytes += piece, length -= piece) {
        piece = std::min(length, block_size);
        if (!finish_block(t, safe_write(t->fd, bytes, static_cast<unsigned>(piece)) >= 0)) {
            return false;
        }
    }
    return true;
}

ssize_t output_write_some(tar_handle* t, const char* data, size_t length) {
    pollfd out = {t->fd, POLLOUT, 0};
    if (poll(&out, 1, 0) < 1) {
        errno = EAGAIN;
        return -1;
    }
    ssize_t put = send(t->fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put < 0 && errno == ENOTSOCK) {
        // A pipe that can be written to takes this much without blocking, and a file anything.
        put = write(t->fd, data, std::min<size_t>(length, PIPE_BUF));
    }
    if (put > 0) {
        output_progress();
    } else if (put < 0 && errno != EAGAIN && errno != EINTR) {
        output_failed(t);
    }
    return put;
}

bool output_pad(tar_handle* t, int count) {
    return pad_with(t, stream_pad, count);
}

bool output_pad_text(tar_handle* t, int count) {
    return pad_with(t, pad_ascii, count);
}

void output_progress() {
    phase_progress();
}

void output_failed(tar_handle* t) {
    if (t->error == 0) {
        t->error = errno != 0 ? errno : EIO;
    }
}
