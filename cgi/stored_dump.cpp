#include "cgi/stored_dump.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
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

// Opens the first of `dirs` that can be opened and says in `*found` which it was.
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

// The next entry that is a dump: any but the directory itself and its parent. Null at the end.
const dirent* next_dump(DIR* dir) {
    const dirent* entry = readdir(dir);
    while (entry && (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)) {
        entry = readdir(dir);
    }
    return entry;
}

// Sends the dump `name` and deletes it; false when it is still there.
bool deliver(int dir_fd, const char* name) {
    int file = openat(dir_fd, name, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        perror("check_dumps");
        return false;
    }
    if (handle_request_push(file, name) != 0) {
        syslog(LOG_ERR, "Failed to send dump: %s", name);
        return false;
    }
    if (unlinkat(dir_fd, name, 0) < 0) {
        perror("check_dumps");
        return false;
    }
    return true;
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
    const dirent* entry = next_dump(dir.get());
    if (entry && !deliver(dirfd(dir.get()), entry->d_name)) {
        return;
    }
    if (!entry || !next_dump(dir.get())) {
        syslog(LOG_INFO, "Dump dir empty");
    }
}

}  // namespace

void pop_stored_dump(const char* dir) {
    const char* const chosen[] = {dir, nullptr};
    deliver_first(dir ? chosen : default_dump_dirs);
    close_listener();
}
