#include "common/fd_range.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace {

// One number of all architectures; older kernel headers do not name it.
constexpr long close_range_number =
#ifdef SYS_close_range
    SYS_close_range;
#else
    -1;
#endif

}  // namespace

void fd_range_close_from(unsigned first) {
    if (close_range_number >= 0 && syscall(close_range_number, first, UINT_MAX, 0U) == 0) {
        return;
    }
    fd_range_close_listed(first);
}

void fd_range_close_listed(unsigned first) {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) {
        return;
    }
    while (const dirent* entry = readdir(dir)) {
        unsigned long fd = strtoul(entry->d_name, nullptr, 10);
        // The dot entries read as 0, which is never asked for.
        if (fd >= first && fd != 0 && fd != static_cast<unsigned long>(dirfd(dir))) {
            close(static_cast<int>(fd));
        }
    }
    closedir(dir);
}
