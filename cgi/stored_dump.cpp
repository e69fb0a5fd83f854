#include "cgi/stored_dump.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "cgi/waiting_browser.h"
#include "common/unique_fd.h"

namespace {

constexpr const char* default_dump_dirs[] = {
    "/var/spool/storage/SD_DISK/dumps",
    "/var/spool/storage/HDD_DISK/dumps",
    "/var/spool/storage/RAID_DISK/dumps",
    "/var/volatile/tmp/dumps",
    nullptr,
};

// Opens the first of `dirs` that can be opened and stores its name in `*found`.
unique_fd open_first(const char* const* dirs, const char** found) {
    for (; *dirs; dirs++) {
        unique_fd dir(open(*dirs, O_RDONLY | O_CLOEXEC));
        if (dir) {
            *found = *dirs;
            return dir;
        }
    }
    return unique_fd();
}

// The next entry except "." and ".."; null at the end.
const dirent* next_dump(DIR* dir) {
    const dirent* entry = readdir(dir);
    while (entry && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)) {
        entry = readdir(dir);
    }
    return entry;
}

// A FIFO is not a dump: reading it would wait for a process that writes into it.
bool is_fifo(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
}

enum class delivery { done, failed, no_dump };

// Sends the dump `name` and deletes it. On failure, the file stays.
delivery deliver(int dir_fd, const char* name) {
    unique_fd file(openat(dir_fd, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        perror("check_dumps");
        return delivery::failed;
    }
    if (is_fifo(file.get())) {
        return delivery::no_dump;
    }
    if (handle_request_push(file.release(), name) != 0) {
        syslog(LOG_ERR, "Failed to send dump: %s", name);
        return delivery::failed;
    }
    if (unlinkat(dir_fd, name, 0) < 0) {
        perror("check_dumps");
        return delivery::failed;
    }
    return delivery::done;
}

// Delivers the first dump, if any. Returns false on failure.
bool deliver_from(DIR* dir) {
    delivery result = delivery::no_dump;
    const dirent* entry;
    while (result == delivery::no_dump && (entry = next_dump(dir))) {
        result = deliver(dirfd(dir), entry->d_name);
    }
    return result != delivery::failed;
}

void deliver_first(const char* const* dirs) {
    const char* dir_name = nullptr;
    unique_fd opened = open_first(dirs, &dir_name);
    if (!opened) {
        syslog(LOG_INFO, "No dump dir");
        return;
    }
    syslog(LOG_INFO, "Check dir: %s", dir_name);
    unique_dir dir(fdopendir(opened.get()));
    if (!dir) {
        perror("check_dumps");
        return;
    }
    (void)opened.release();  // the stream closes it now
    if (!deliver_from(dir.get())) {
        return;
    }
    if (!next_dump(dir.get())) {
        syslog(LOG_INFO, "Dump dir empty");
    }
}

}  // namespace

void pop_stored_dump(const char* dir) {
    const char* const chosen[] = {dir, nullptr};
    deliver_first(dir ? chosen : default_dump_dirs);
    close_listener();
}
