#include "common/fd_range.h"

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <climits>

#include "common/unique_fd.h"

namespace {

// Older kernel headers have no name for it.
constexpr long close_range_number =
#ifdef SYS_close_range
    SYS_close_range;
#else
    -1;
#endif

// Some kernels allow millions of descriptors, and closing each of them takes too long. A new descriptor gets
// the lowest free number, so a process with a descriptor above this has had 65536 others open.
constexpr rlim_t highest_count = 65536;

// Closes the descriptors in /proc/self/fd. Returns false if the list could not be read to its end.
bool close_listed(unsigned first) {
    const unique_dir dir(opendir("/proc/self/fd"));
    if (!dir) {
        return false;
    }
    errno = 0;
    while (const dirent* entry = readdir(dir.get())) {
        unsigned long fd = strtoul(entry->d_name, nullptr, 10);
        // The dot entries read as 0, which no caller asks for.
        if (fd >= first && fd != 0 && fd != static_cast<unsigned long>(dirfd(dir.get()))) {
            close(static_cast<int>(fd));
        }
        errno = 0;
    }
    return errno == 0;
}

// The hard limit: the soft one may have been lowered since a descriptor above it was opened.
void close_up_to_limit(unsigned first) {
    rlimit limit = {highest_count, highest_count};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    const unsigned end = static_cast<unsigned>(std::min(limit.rlim_max, highest_count));
    for (unsigned fd = first; fd < end; fd++) {
        close(static_cast<int>(fd));
    }
}

}  // namespace

void fd_range_close_from(unsigned first) {
    if (close_range_number >= 0 && syscall(close_range_number, first, UINT_MAX, 0U) == 0) {
        return;
    }
    fd_range_close_listed(first);
}

void fd_range_close_listed(unsigned first) {
    if (!close_listed(first)) {
        close_up_to_limit(first);
    }
}
