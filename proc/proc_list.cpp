#include "proc/proc_list.h"

#include <ctype.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>

#include "common/ascii.h"
#include "common/proc_path.h"
#include "common/small_file.h"
#include "common/unique_fd.h"

std::atomic<pid_t> proc_extra_ignore_pid{-1};

namespace {

bool file_exists(const char* path) {
    struct stat status;
    return fstatat(AT_FDCWD, path, &status, 0) == 0;
}

// Moves the text after the last `mark` to the start of `buf`; false if nothing follows the mark.
bool keep_after_last(char* buf, char mark) {
    char* found = strrchr(buf, mark);
    if (!found || !found[1]) {
        return false;
    }
    memmove(buf, found + 1, strlen(found + 1) + 1);
    return true;
}

bool name_from_command_line(const char* path, char* buf, size_t len) {
    if (!file_exists(path) || read_file_once(path, buf, len) <= 0) {
        return false;
    }
    buf[len - 1] = '\0';
    return keep_after_last(buf, '/');
}

bool name_from_stat(const char* path, char* buf, size_t len) {
    if (file_exists(path) && read_file_once(path, buf, len) < 1) {
        return false;
    }
    buf[len - 1] = '\0';
    char* close_mark = strrchr(buf, ')');
    if (!close_mark || close_mark[1] != ' ') {
        return false;
    }
    *close_mark = '\0';
    return keep_after_last(buf, '(');
}

// The number at the start of a directory entry's name, which may be 0. False if the name does not begin with
// a digit.
bool entry_pid(const char* name, pid_t* pid) {
    *pid = static_cast<pid_t>(strtoul(name, nullptr, 10));
    return isdigit(static_cast<unsigned char>(name[0])) != 0;
}

}  // namespace

ssize_t read_file_once(const char* path, void* buf, size_t len) {
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file) {
        return -1;
    }
    return read(file.get(), buf, len);
}

int proc_list(pid_t* pids, int capacity, pid_t skip_pid) {
    return proc_list_at(proc_root, pids, capacity, skip_pid);
}

int proc_list_at(const char* root, pid_t* pids, int capacity, pid_t skip_pid) {
    unique_dir dir(opendir(root));
    if (!dir) {
        return 0;
    }
    const pid_t left_out[] = {1, skip_pid, proc_extra_ignore_pid, getpid(), getppid()};
    int count = 0;
    while (const dirent* entry = readdir(dir.get())) {
        pid_t pid;
        if (!entry_pid(entry->d_name, &pid) || count >= capacity) {
            continue;
        }
        bool skipped = false;
        for (pid_t other : left_out) {
            skipped = skipped || pid == other;
        }
        if (!skipped) {
            pids[count++] = pid;
        }
    }
    return count;
}

void proc_plist_remove_pid(pid_t* pids, int first, int end, pid_t pid) {
    for (int i = first; i < end; i++) {
        if (pids[i] == pid) {
            pids[i] = -1;
            return;
        }
    }
}

int proc_get_pidname(pid_t pid, char* buf, size_t len) {
    return proc_get_pidname_at(proc_root, pid, buf, len);
}

int proc_get_pidname_at(const char* root, pid_t pid, char* buf, size_t len) {
    if (len == 0) {
        return 0;
    }
    const proc_path command_line(pid, "cmdline", root);
    if (command_line && name_from_command_line(command_line.text, buf, len)) {
        return 1;
    }
    const proc_path stat(pid, "stat", root);
    return stat && name_from_stat(stat.text, buf, len) ? 1 : 0;
}

pid_t proc_ppid(pid_t pid) {
    return proc_ppid_at(proc_root, pid);
}

pid_t proc_ppid_at(const char* root, pid_t pid) {
    char text[256];
    ssize_t length = read_file_once(proc_path(pid, "stat", root).text, text, sizeof text - 1);
    if (length < 1 || !text[0]) {
        return -1;
    }
    text[length] = '\0';
    const char* at = text;
    for (int runs = 0; runs < 3; runs++) {
        while (*at && !is_ascii_blank(*at)) {
            at++;
        }
        while (is_ascii_blank(*at)) {
            at++;
        }
    }
    return *at ? static_cast<pid_t>(strtoul(at, nullptr, 10)) : -1;
}

char proc_state(pid_t pid) {
    char text[256];
    (void)small_file_text(proc_path(pid, "stat").text, text, sizeof text);
    const char* name_end = strrchr(text, ')');
    return name_end && name_end[1] == ' ' ? name_end[2] : '\0';
}

int proc_is_kernel_thread(pid_t pid) {
    return proc_is_kernel_thread_at(proc_root, pid);
}

int proc_is_kernel_thread_at(const char* root, pid_t pid) {
    char target[1];
    return readlinkat(AT_FDCWD, proc_path(pid, "exe", root).text, target, sizeof target) < 0 ? 1 : 0;
}

void proc_find_pid_by_name(const char* root, const char* name, pid_t* pids, int* count, int capacity) {
    *count = 0;
    unique_dir dir(opendir(root));
    if (!dir) {
        return;
    }
    while (*count < capacity) {
        const dirent* entry = readdir(dir.get());
        if (!entry) {
            break;
        }
        if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
            continue;
        }
        pid_t pid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        char found[1024] = "";
        if (proc_get_pidname_at(root, pid, found, sizeof found) && strcmp(found, name) == 0) {
            pids[(*count)++] = pid;
        }
    }
}
