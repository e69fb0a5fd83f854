#include "monitor/rtrace_samplers.h"

#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "common/ascii.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"

namespace {

constexpr size_t path_size = 200;

bool is_folder(int dir_fd, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_DIR;
    }
    struct stat status;
    return fstatat(dir_fd, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

bool is_number(const char* name) {
    const char* end = name;
    while (is_ascii_digit(*end)) {
        end++;
    }
    return end != name && *end == '\0';
}

// Reads up to a full piece. Sets `*ended` at the end of the file or at a read error.
unsigned read_piece(int file, char* to, bool* ended) {
    unsigned size = 0;
    while (size < rtrace_data_capacity && !*ended) {
        ssize_t got = read(file, to + size, rtrace_data_capacity - size);
        if (got > 0) {
            size += static_cast<unsigned>(got);
        } else {
            *ended = got == 0 || errno != EINTR;
        }
    }
    return size;
}

bool sample_open_file(const rtrace_sink& sink, int file, rtrace_type type, pid_t pid) {
    bool ended = false;
    for (bool first = true;; first = false) {
        unsigned size = read_piece(file, rtrace_data(sink), &ended);
        if (!ended) {
            if (!rtrace_write_data(sink, type, pid, size, 1)) {
                return false;
            }
        } else if (size > 0) {
            return rtrace_write_last_piece(sink, type, pid, size);
        } else {
            return first || rtrace_write_bare(sink, type, 0);
        }
    }
}

bool sample_at(const rtrace_sink& sink, int dir_fd, const char* path, rtrace_type type, pid_t pid) {
    unique_fd file(openat(dir_fd, path, O_RDONLY | O_CLOEXEC));
    return !file || sample_open_file(sink, file.get(), type, pid);
}

// Samples the file of the process that an entry names. Other entries are skipped. False if a write fails.
bool sample_entry(const rtrace_sink& sink, int dir_fd, const dirent& entry, rtrace_type type,
                  const char* name) {
    char path[path_size];
    if (!is_number(entry.d_name) || !is_folder(dir_fd, entry)) {
        return true;
    }
    int length = snprintf(path, sizeof path, "%s/%s", entry.d_name, name);
    bool fits = length > 0 && static_cast<size_t>(length) < sizeof path;
    return !fits ||
           sample_at(sink, dir_fd, path, type, static_cast<pid_t>(strtol(entry.d_name, nullptr, 10)));
}

}  // namespace

bool rtrace_sample_file(const rtrace_sink& sink, const char* path, rtrace_type type, pid_t pid) {
    return sample_at(sink, AT_FDCWD, path, type, pid);
}

bool rtrace_sample_processes(const rtrace_sink& sink, const char* root, rtrace_type type, const char* name) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s/proc", root);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return true;
    }
    unique_dir dir(opendir(path));
    while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
        if (!sample_entry(sink, dirfd(dir.get()), *entry, type, name)) {
            return false;
        }
    }
    return true;
}
