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
    int64_t copied = 0;
    int64_t taken = 0;
    while (taken < size) {
        ssize_t got = safe_read(in_fd, block, static_cast<unsigned>(std::min(size - taken, copy_block)));
        if (got <= 0) {
            break;
        }
        taken += got;
        if (output_write(t, block, static_cast<size_t>(got))) {
            copied += got;
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
