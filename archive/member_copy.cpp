#include "archive/member_copy.h"

#include <errno.h>

#include <algorithm>

#include "archive/phase.h"
#include "common/safe_io.h"

namespace {

constexpr int64_t copy_block = 16384;

}  // namespace

int64_t member_copy(int in_fd, int out_fd, int64_t size) {
    char block[copy_block];
    int64_t copied = 0;
    int64_t taken = 0;
    while (taken < size) {
        ssize_t got = safe_read(in_fd, block, static_cast<unsigned>(std::min(size - taken, copy_block)));
        if (got <= 0) {
            break;
        }
        taken += got;
        if (safe_write(out_fd, block, static_cast<unsigned>(got)) >= 0) {
            copied += got;
            phase_progress();
        } else if (errno == EPIPE) {
            return -1;
        }
    }
    return copied;
}
