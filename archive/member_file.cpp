#include "archive/member_file.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "archive/member_copy.h"
#include "archive/member_name.h"
#include "common/monotonic.h"
#include "common/unique_fd.h"

namespace {

// Files that not even root can read, sorted.
constexpr std::string_view proc_sys_unreadable[] = {
    "/proc/sys/fs/protected_fifos",   "/proc/sys/fs/protected_hardlinks",
    "/proc/sys/fs/protected_regular", "/proc/sys/fs/protected_symlinks",
    "/proc/sys/kernel/cad_pid",       "/proc/sys/kernel/unprivileged_userns_apparmor_policy",
    "/proc/sys/net/ipv4/route/flush", "/proc/sys/net/ipv6/route/flush",
    "/proc/sys/vm/compact_memory",    "/proc/sys/vm/drop_caches",
    "/proc/sys/vm/mmap_rnd_bits",     "/proc/sys/vm/stat_refresh",
};
static_assert(std::ranges::is_sorted(proc_sys_unreadable));

constexpr int retry_pause_ms = 10;

// Waits until the non-blocking `fd` has something to say, `patience_ms` at most.
bool wait_readable(int fd, int64_t patience_ms) {
    pollfd wanted = {fd, POLLIN, 0};
    return patience_ms > 0 && poll(&wanted, 1, static_cast<int>(patience_ms)) > 0;
}

// Reads the non-blocking `fd` until the buffer is full, the end, or the end of patience, which counts as the
// end. Returns the bytes read or -1.
ssize_t read_bounded(int fd, char* buf, size_t size) {
    size_t done = 0;
    int64_t deadline = 0;  // set by the first wait: most files never need the clock
    bool waited = false;   // and nothing has come since
    while (done < size) {
        ssize_t got = read(fd, buf + done, size - done);
        if (got == 0) {
            break;
        }
        if (got > 0) {
            done += static_cast<size_t>(got);
            waited = false;
        } else if (errno == EAGAIN) {
            int64_t now = monotonic_ms();
            deadline = deadline ? deadline : now + member_read_patience_ms;
            if (!wait_readable(fd, deadline - now)) {
                break;
            }
            if (waited) {
                // It calls itself readable without being so, as a file without a poll method does.
                poll(nullptr, 0, retry_pause_ms);
            }
            waited = true;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(done);
}

struct read_buffer {
    unique_malloc<char> memory;
    unsigned size;

    explicit read_buffer(unsigned limit)
        : size(static_cast<unsigned>(member_size(limit ? limit : member_read_bound))) {
        memory.reset(static_cast<char*>(malloc(size)));
    }
};

// Stores the file `at` in the directory `dir_fd`, whose whole path is `path`.
void store_file(tar_handle* t, const char* name, int dir_fd, const char* at, const char* path,
                const read_buffer& buffer) {
    unique_fd file(openat(dir_fd, at, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        if (!std::ranges::binary_search(proc_sys_unreadable, std::string_view(path))) {
            perror(path);
        }
        return;
    }
    ssize_t got = read_bounded(file.get(), buffer.memory.get(), buffer.size);
    if (got > 0) {
        tar_addfile(t, name, member_size(got));
        tar_write(t, buffer.memory.get(), static_cast<size_t>(got));
    } else if (got < 0 && errno != EISDIR) {
        perror(path);
    }
}

bool is_listed(const char* name, const char* const* list) {
    for (; list && *list; list++) {
        if (strcmp(name, *list) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

int stream_file_unknownsize(tar_handle* t, int /*fd*/, const char* name, const char* path, unsigned limit) {
    read_buffer buffer(limit);
    if (!buffer.memory) {
        return 1;
    }
    store_file(t, name, AT_FDCWD, path, path, buffer);
    return 0;
}

int stream_dir_unknownsize(tar_handle* t, int /*fd*/, const char* name_prefix, const char* dir_path,
                           const char* const* skip_names) {
    unique_dir dir(opendir(dir_path));
    if (!dir) {
        return 1;
    }
    read_buffer buffer(0);
    if (!buffer.memory) {
        return 0;
    }
    char path[512];
    while (const dirent* entry = readdir(dir.get())) {
        // A directory could only be opened to find that it can't be read.
        if (entry->d_type == DT_DIR || is_listed(entry->d_name, skip_names)) {
            continue;
        }
        const member_name name = member_name_in_folder(t, name_prefix, entry->d_name, entry->d_ino);
        snprintf(path, sizeof path, "%s%s", dir_path, entry->d_name);
        store_file(t, name.text, dirfd(dir.get()), entry->d_name, path, buffer);
    }
    return 0;
}
