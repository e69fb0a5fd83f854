// A library to be preloaded: makes malloc and poll fail as the test says in a shared file, whose name is in
// the environment variable FAULTS.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

struct faults {
    std::atomic<long> countdown;   // the number of allocations up to the one that fails; 0: none fails
    std::atomic<long> lasting;     // if set, all later allocations fail, too
    std::atomic<long> poll_error;  // the errno of poll; 0: it works
    std::atomic<long> polls;       // calls so far
};

static faults* shared;

__attribute__((constructor)) static void begin() {
    const char* file = getenv("FAULTS");
    int fd = file ? open(file, O_RDWR | O_CLOEXEC) : -1;
    void* memory = mmap(nullptr, sizeof(faults), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    shared = memory == MAP_FAILED ? nullptr : static_cast<faults*>(memory);
    close(fd);
}

extern "C" void* __libc_malloc(size_t size);

extern "C" void* malloc(size_t size) {
    if (shared) {
        long left = shared->countdown;
        while (left > 0 && !shared->countdown.compare_exchange_weak(left, left - 1)) {
        }
        if (left == 1) {
            if (shared->lasting) {
                shared->countdown = 1;
            }
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(size);
}

extern "C" int poll(pollfd* fds, nfds_t count, int timeout_ms) {
    if (shared) {
        shared->polls++;
        if (shared->poll_error) {
            errno = static_cast<int>(shared->poll_error);
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_poll, fds, count, timeout_ms));
}
