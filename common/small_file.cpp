#include "common/small_file.h"

#include <fcntl.h>

#include "common/unique_fd.h"

ssize_t small_file_read(int dir_fd, const char* path, void* buf, size_t size) {
    const unique_fd file(openat(dir_fd, path, O_RDONLY | O_CLOEXEC));
    size_t done = 0;
    while (file && done < size) {
        const ssize_t got = read(file.get(), static_cast<char*>(buf) + done, size - done);
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0) {
            return static_cast<ssize_t>(done);
        } else if (errno != EINTR) {
            break;
        }
    }
    return done > 0 || (file && size == 0) ? static_cast<ssize_t>(done) : -1;
}

ssize_t small_file_text(const char* path, char* text, size_t size) {
    const ssize_t length = small_file_read(AT_FDCWD, path, text, size - 1);
    text[length > 0 ? length : 0] = '\0';
    return length;
}
