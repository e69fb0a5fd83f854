#include "archive/member_file.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>

#include "archive/manifest.h"
#include "archive/member_copy.h"
#include "archive/member_name.h"
#include "archive/output.h"
#include "common/deadline.h"
#include "common/unique_fd.h"

namespace {

// Files that not even root can open, sorted.
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

bool wait_readable(int fd, int timeout_ms) {
    pollfd input = {fd, POLLIN, 0};
    return timeout_ms > 0 && poll(&input, 1, timeout_ms) > 0;
}

// The time limit of one file. The first wait sets it: most files never need the clock.
using read_limit = std::optional<deadline>;

// Reads the non-blocking `fd` until the buffer is full, end of file or the time limit, which counts as end of
// file. Returns the number of bytes, or -1.
ssize_t read_bounded(int fd, char* buf, size_t size, read_limit* limit) {
    size_t length = 0;
    bool has_waited = false;  // since the last byte
    while (length < size) {
        const ssize_t count = read(fd, buf + length, size - length);
        if (count == 0) {
            break;
        }
        if (count > 0) {
            length += static_cast<size_t>(count);
            has_waited = false;
        } else if (errno == EAGAIN) {
            if (!*limit) {
                limit->emplace(member_read_timeout_ms);
            }
            if (!wait_readable(fd, (*limit)->left_ms())) {
                break;
            }
            if (has_waited) {
                // A file without a poll method is always reported as readable. Do not spin on it.
                poll(nullptr, 0, retry_pause_ms);
            }
            has_waited = true;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<ssize_t>(length);
}

struct read_buffer {
    unique_malloc<char> memory;
    unsigned size;

    explicit read_buffer(unsigned limit)
        : size(static_cast<unsigned>(member_size(limit ? limit : member_read_bound))) {
        memory.reset(static_cast<char*>(malloc(size)));
    }
};

// How many bytes the file has, at most `bound`. The first `counted` ones have been read.
int64_t count_bytes(int fd, int64_t counted, int64_t bound, read_limit* limit) {
    char block[4096];
    while (counted < bound) {
        const int64_t wanted = std::min<int64_t>(bound - counted, sizeof block);
        const ssize_t length = read_bounded(fd, block, static_cast<size_t>(wanted), limit);
        if (length <= 0) {
            break;
        }
        counted += length;
    }
    return counted;
}

// Copies `size` bytes of the file through the buffer. A file that has become shorter, which is a text, is
// padded with lines of blanks.
void copy_long_file(tar_handle* t, const char* name, int fd, int64_t size, const read_buffer& buffer,
                    read_limit* limit) {
    while (size > 0 && t->error == 0) {
        const int64_t wanted = std::min<int64_t>(size, buffer.size);
        const ssize_t length = read_bounded(fd, buffer.memory.get(), static_cast<size_t>(wanted), limit);
        if (length <= 0) {
            manifest_note(t, name, ENODATA);
            (void)output_pad_text(t, static_cast<int>(size));
            tar_fakewrite(t, static_cast<size_t>(size));
            return;
        }
        tar_write(t, buffer.memory.get(), static_cast<size_t>(length));
        size -= length;
    }
}

// Stores a file whose first bytes fill the buffer, up to `bound`. Returns false, with the buffer unchanged,
// if the file cannot be read again from its beginning.
bool store_long_file(tar_handle* t, const char* name, int fd, int64_t bound, const read_buffer& buffer,
                     read_limit* limit) {
    if (lseek(fd, 0, SEEK_CUR) < 0) {
        return false;
    }
    const int64_t size = count_bytes(fd, buffer.size, bound + 1, limit);
    if (lseek(fd, 0, SEEK_SET) != 0) {
        return false;
    }
    if (size > bound) {
        manifest_note(t, name, EFBIG);
    }
    const int64_t stored = std::min(size, bound);
    tar_addfile(t, name, member_size(stored));
    copy_long_file(t, name, fd, stored, buffer, limit);
    return true;
}

void report(tar_handle* t, const char* name, const char* path) {
    const int error = errno;
    perror(path);
    manifest_note(t, name, error);
}

// Stores the file `file_name` of the directory `dir_fd`. `path` is its whole path, for messages.
void store_file(tar_handle* t, const char* name, int dir_fd, const char* file_name, const char* path,
                const read_buffer& buffer, int64_t bound) {
    unique_fd file(openat(dir_fd, file_name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        if (!std::ranges::binary_search(proc_sys_unreadable, std::string_view(path))) {
            report(t, name, path);
        }
        return;
    }
    read_limit limit;
    const ssize_t length = read_bounded(file.get(), buffer.memory.get(), buffer.size, &limit);
    if (length == int64_t{buffer.size} && bound > length &&
        store_long_file(t, name, file.get(), bound, buffer, &limit)) {
        return;
    }
    if (length > 0) {
        tar_addfile(t, name, member_size(length));
        tar_write(t, buffer.memory.get(), static_cast<size_t>(length));
    } else if (length < 0 && errno != EISDIR) {
        report(t, name, path);
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
        manifest_note(t, name, ENOMEM);
        return 1;
    }
    store_file(t, name, AT_FDCWD, path, path, buffer, 0);
    return 0;
}

int stream_dir_unknownsize(tar_handle* t, int /*fd*/, const char* name_prefix, const char* dir_path,
                           const char* const* skip_names, int64_t file_bound) {
    unique_dir dir(opendir(dir_path));
    if (!dir) {
        if (errno != ENOENT) {
            manifest_note(t, name_prefix, errno);
        }
        return 1;
    }
    read_buffer buffer(0);
    if (!buffer.memory) {
        manifest_note(t, name_prefix, ENOMEM);
        return 0;
    }
    char path[512];
    while (const dirent* entry = readdir(dir.get())) {
        // Reading a directory would fail with EISDIR; this saves the open.
        if (entry->d_type == DT_DIR || is_listed(entry->d_name, skip_names)) {
            continue;
        }
        const member_name name = member_name_in_folder(t, name_prefix, entry->d_name, entry->d_ino);
        snprintf(path, sizeof path, "%s%s", dir_path, entry->d_name);
        store_file(t, name.text, dirfd(dir.get()), entry->d_name, path, buffer, file_bound);
    }
    return 0;
}
