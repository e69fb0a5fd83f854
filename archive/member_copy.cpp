#include "archive/member_copy.h"

#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "archive/output.h"
#include "common/safe_io.h"

namespace {

constexpr int64_t copy_block = 16384;

}  // namespace

int member_size(int64_t size) {
    return static_cast<int>(std::min<int64_t>(size, INT_MAX));
}

int64_t member_copy(tar_handle* t, int in_fd, int64_t size) {
    char block[copy_block];
    int64_t read_bytes = 0;
    int64_t copied = 0;
    while (read_bytes < size) {
        const int64_t wanted = std::min(size - read_bytes, copy_block);
        const ssize_t length = safe_read(in_fd, block, static_cast<unsigned>(wanted));
        if (length <= 0) {
            break;
        }
        read_bytes += length;
        if (output_write(t, block, static_cast<size_t>(length))) {
            copied += length;
        } else if (errno == EPIPE) {
            return -1;
        }
    }
    return copied;
}

int member_store(tar_handle* t, const char* name, int in_fd) {
    struct stat status;
    if (fstat(in_fd, &status) < 0) {
        return 0;
    }
    const int size = member_size(status.st_size);
    tar_addfile(t, name, size);
    lseek(in_fd, 0, SEEK_SET);
    const int64_t copied = member_copy(t, in_fd, size);
    if (copied < 0 || !output_pad(t, static_cast<int>(size - copied))) {
        return 1;
    }
    tar_fakewrite(t, static_cast<size_t>(size));
    return 0;
}
