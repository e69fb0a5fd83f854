#include "proc/number_list.h"

#include <fcntl.h>
#include <stdlib.h>

unique_dir number_folder(int dir_fd, const char* path) {
    unique_fd fd(openat(dir_fd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    unique_dir dir(fd ? fdopendir(fd.get()) : nullptr);
    if (dir) {
        (void)fd.release();  // the stream owns it now
    }
    return dir;
}

const dirent* number_next(DIR* dir) {
    const dirent* entry;
    do {
        entry = readdir(dir);
    } while (entry && (entry->d_name[0] < '0' || entry->d_name[0] > '9'));
    return entry;
}

int number_list(int dir_fd, const char* path, pid_t* numbers, int capacity) {
    const unique_dir dir = number_folder(dir_fd, path);
    if (!dir) {
        return -1;
    }
    int count = 0;
    while (count < capacity) {
        const dirent* entry = number_next(dir.get());
        if (!entry) {
            break;
        }
        const pid_t number = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        int at = count++;
        // The kernel lists them almost in order, so there is little to move.
        for (; at > 0 && numbers[at - 1] > number; at--) {
            numbers[at] = numbers[at - 1];
        }
        numbers[at] = number;
    }
    return count;
}
