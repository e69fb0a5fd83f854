// A library to be preloaded: makes regular files look like MTD flash, or like block devices if BLOCK is set
// in the environment. The variables BAD and UNREADABLE list numbers of pages.
#include <errno.h>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// True if a list of page numbers in the environment contains the page at this offset.
static int listed(const char* variable, long long offset) {
    const char* list = getenv(variable);
    while (list && *list) {
        char* end;
        if (strtoll(list, &end, 10) == offset / 4096) {
            return 1;
        }
        list = *end ? end + 1 : end;
    }
    return 0;
}

// If BLOCK is set in the environment, regular files are block devices.
template <typename Status>
static int as_device(int result, Status* status) {
    if (result == 0 && getenv("BLOCK") && S_ISREG(status->st_mode)) {
        status->st_mode = (status->st_mode & ~S_IFMT) | S_IFBLK;
        status->st_size = 0;
    }
    return result;
}

extern "C" int fstat64(int fd, struct stat64* status) noexcept {
    return as_device(static_cast<int>(syscall(SYS_fstat, fd, status)), status);
}

extern "C" int fstat(int fd, struct stat* status) noexcept {
    return as_device(static_cast<int>(syscall(SYS_fstat, fd, status)), status);
}

static int block_request(int fd, unsigned long request, void* value) {
    struct stat info;
    if (request == MEMGETBADBLOCK) {  // the program must not ask a block device for this
        return listed("BAD", *static_cast<long long*>(value));
    }
    if (request != BLKGETSIZE || getenv("NO_SIZE")) {
        errno = request == BLKGETSIZE ? EIO : ENOTTY;
        return -1;
    }
    syscall(SYS_fstat, fd, &info);
    *static_cast<unsigned long*>(value) = static_cast<unsigned long>(info.st_size) / 512;
    return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    void* value = va_arg(values, void*);
    va_end(values);
    if (getenv("BLOCK")) {
        return block_request(fd, request, value);
    }
    if (request == MEMGETINFO) {
        struct stat info;
        fstat(fd, &info);
        memset(value, 0, sizeof(mtd_info_user));
        static_cast<mtd_info_user*>(value)->size = (unsigned)info.st_size;
        return 0;
    }
    if (request == MEMGETBADBLOCK) {
        if (getenv("NO_BAD_BLOCKS")) {
            errno = EOPNOTSUPP;
            return -1;
        }
        return listed("BAD", *(long long*)value);
    }
    errno = ENOTTY;
    return -1;
}

extern "C" ssize_t pread64(int fd, void* bytes, size_t size, off64_t offset) {
    if (listed("UNREADABLE", offset)) {
        errno = EBADMSG;
        return -1;
    }
    return syscall(SYS_pread64, fd, bytes, size, offset);
}

extern "C" ssize_t pread(int fd, void* bytes, size_t size, off_t offset) {
    return pread64(fd, bytes, size, offset);
}
