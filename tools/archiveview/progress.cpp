#include "tools/archiveview/progress.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/monotonic.h"

namespace archiveview {

namespace {

constexpr int64_t first_ms = 500;
constexpr int64_t interval_ms = 200;

uint64_t size_of(int fd) {
    struct stat status = {};
    const bool is_known = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    return is_known ? static_cast<uint64_t>(status.st_size) : 0;
}

}  // namespace

read_progress::read_progress(int fd)
    : is_terminal_(isatty(STDERR_FILENO) == 1), size_(size_of(fd)), next_ms_(monotonic_ms() + first_ms) {}

read_progress::~read_progress() {
    if (is_shown_) {
        (void)fputs("\r\033[K", stderr);
    }
}

void read_progress::add(size_t bytes) {
    read_ += bytes;
    if (!is_terminal_ || monotonic_ms() < next_ms_) {
        return;
    }
    next_ms_ = monotonic_ms() + interval_ms;
    is_shown_ = true;
    (void)fprintf(stderr, "\r\033[Karchiveview: %.1f MB read", static_cast<double>(read_) / 1e6);
    if (size_ >= read_) {
        (void)fprintf(stderr, " (%d%%)", static_cast<int>(100 * read_ / size_));
    }
    (void)fflush(stderr);
}

}  // namespace archiveview
