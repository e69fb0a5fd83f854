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

// A blocking write counts as progress only when it returns: at 1 kB/s, after 16 s. A multiple of the length
// of pad_ascii's lines, so that filler of several blocks still consists of whole lines.
constexpr size_t block_size = 16000;

// Records the result of a block's write and returns it.
bool finish_block(tar_handle* t, bool succeeded) {
    if (succeeded) {
        phase_progress();
    } else {
        output_set_error(t);
    }
    return succeeded;
}

bool pad_with(tar_handle* t, int (*pad)(int fd, int count), int count) {
    while (count > 0) {
        const int size = std::min(count, static_cast<int>(block_size));
        if (!finish_block(t, pad(t->fd, size) == 0)) {
            return false;
        }
        count -= size;
    }
    return true;
}

}  // namespace

bool output_write(tar_handle* t, const void* data, size_t length) {
    const char* bytes = static_cast<const char*>(data);
    while (length > 0) {
        const size_t size = std::min(length, block_size);
        if (!finish_block(t, safe_write(t->fd, bytes, static_cast<unsigned>(size)) >= 0)) {
            return false;
        }
        bytes += size;
        length -= size;
    }
    return true;
}

ssize_t output_write_some(tar_handle* t, const char* data, size_t length) {
    pollfd output = {t->fd, POLLOUT, 0};
    if (poll(&output, 1, 0) < 1) {
        errno = EAGAIN;
        return -1;
    }
    ssize_t count = send(t->fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno == ENOTSOCK) {
        // Does not block: a pipe that poll calls writable accepts PIPE_BUF bytes, a file any number.
        count = write(t->fd, data, std::min<size_t>(length, PIPE_BUF));
    }
    if (count > 0) {
        phase_progress();
    } else if (count < 0 && errno != EAGAIN && errno != EINTR) {
        output_set_error(t);
    }
    return count;
}

bool output_pad(tar_handle* t, int count) {
    return pad_with(t, stream_pad, count);
}

bool output_pad_text(tar_handle* t, int count) {
    return pad_with(t, pad_ascii, count);
}

void output_set_error(tar_handle* t) {
    if (t->error == 0) {
        t->error = errno != 0 ? errno : EIO;
    }
}
