#include "proc/proc_fd.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string_view>

#include "common/proc_path.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "proc/proc_socket.h"
#include "proc/socket_cache.h"

namespace {

constexpr std::string_view socket_mark = "socket:[";
constexpr std::string_view pipe_mark = "pipe:[";

unique_dir open_fd_dir(const char* root, pid_t pid) {
    return unique_dir(opendir(proc_path(pid, "fd", root).text));
}

// The next entry that names a descriptor; null at the end.
const dirent* next_fd(DIR* dir) {
    const dirent* entry;
    do {
        entry = readdir(dir);
    } while (entry && entry->d_name[0] == '.');
    return entry;
}

struct fd_counts {
    int all = 0;
    int sockets = 0;
    int pipes = 0;
};

// Counts descriptor `name` by its kind; false if its link cannot be read.
bool count_link(int dir_fd, const char* name, fd_counts* counts) {
    char link[128];
    ssize_t length = readlinkat(dir_fd, name, link, sizeof link - 1);
    if (length < 0) {
        return false;
    }
    std::string_view target(link, static_cast<size_t>(length));
    counts->sockets += target.starts_with(socket_mark);
    counts->pipes += target == pipe_mark;
    return true;
}

// Reads the link of descriptor `name` ("fd/N") as readlink(2) does.
ssize_t read_fd_link(const char* root, pid_t pid, const char* name, char* buf, size_t len, int fd_dir) {
    if (fd_dir >= 0) {
        return readlinkat(fd_dir, name + 3, buf, len);
    }
    return readlinkat(AT_FDCWD, proc_path(pid, name, root).text, buf, len);
}

int socket_text(const char* root, pid_t pid, const char* name, unsigned long inode, char* buf, size_t len,
                socket_cache* cache) {
    const proc_path path(pid, name, root);
    if (cache && path) {
        return socket_cache_lookup(cache, path.text, inode, buf, len);
    }
    return proc_skinfo_lookup_at(root, inode, buf, len);
}

int describe(const char* root, pid_t pid, int fd, char* buf, size_t len, const proc_fdinfo_aids& aids) {
    if (len == 0) {
        return -1;
    }
    buf[0] = '\0';
    char name[16];
    snprintf(name, sizeof name, "fd/%d", fd);
    ssize_t length = read_fd_link(root, pid, name, buf, len - 1, aids.fd_dir);
    if (length < 1) {
        return static_cast<int>(length);
    }
    buf[length] = '\0';
    if (!std::string_view(buf, static_cast<size_t>(length)).starts_with(socket_mark)) {
        return static_cast<int>(length);
    }
    unsigned long inode = strtoul(buf + socket_mark.size(), nullptr, 10);
    return static_cast<int>(length) +
           socket_text(root, pid, name, inode, buf + length, len - static_cast<size_t>(length), aids.sockets);
}

}  // namespace

int proc_fdinfo_lookup_at(const char* root, pid_t pid, int fd, char* buf, size_t len) {
    return describe(root, pid, fd, buf, len, {});
}

int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len) {
    return describe(proc_root, pid, fd, buf, len, {});
}

int proc_fdinfo_lookup(pid_t pid, int fd, char* buf, size_t len, const proc_fdinfo_aids& aids) {
    return describe(proc_root, pid, fd, buf, len, aids);
}

unique_fd proc_fd_dir(pid_t pid) {
    return unique_fd(open(proc_path(pid, "fd").text, O_PATH | O_DIRECTORY | O_CLOEXEC));
}

int proc_fdlist(pid_t pid, int* fds, int capacity) {
    return proc_fdlist_at(proc_root, pid, fds, capacity);
}

int proc_fdlist_at(const char* root, pid_t pid, int* fds, int capacity) {
    unique_dir dir = open_fd_dir(root, pid);
    int count = 0;
    while (dir && count < capacity) {
        const dirent* entry = next_fd(dir.get());
        if (!entry) {
            break;
        }
        fds[count++] = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    }
    return count;
}

int proc_nr_fd2(pid_t pid, int* sockets, int* pipes) {
    return proc_nr_fd2_at(proc_root, pid, sockets, pipes);
}

int proc_nr_fd2_at(const char* root, pid_t pid, int* sockets, int* pipes) {
    fd_counts counts;
    bool links_wanted = sockets || pipes;
    int restarts = 0;
    unique_dir dir = open_fd_dir(root, pid);
    while (dir) {
        const dirent* entry = next_fd(dir.get());
        if (!entry) {
            break;
        }
        counts.all++;
        if (links_wanted && !count_link(dirfd(dir.get()), entry->d_name, &counts) &&
            restarts++ < proc_fd_restarts) {
            dir.reset();  // first, since there may be no second descriptor
            dir = open_fd_dir(root, pid);
        }
    }
    if (!dir) {
        counts = {};
    }
    if (sockets) {
        *sockets = counts.sockets;
    }
    if (pipes) {
        *pipes = counts.pipes;
    }
    return counts.all;
}

ssize_t proc_mem_pread(pid_t pid, void* buf, unsigned len, int64_t offset) {
    unique_fd memory(open(proc_path(pid, "mem").text, O_RDONLY | O_CLOEXEC));
    if (!memory) {
        return -1;
    }
    // Not checked: if the seek fails, the read fails too.
    (void)lseek(memory.get(), static_cast<off_t>(offset), SEEK_SET);
    return safe_read(memory.get(), buf, len);
}
