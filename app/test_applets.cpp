#include "app/test_applets.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace {

// The number in argv[index], in any base; 0 if it is not a number, `fallback` if it is missing.
unsigned long number_argument(int argc, char** argv, int index, unsigned long fallback) {
    return argc > index ? strtoul(argv[index], nullptr, 0) : fallback;
}

[[noreturn]] void sleep_for_ever() {
    for (;;) {
        poll(nullptr, 0, -1);
    }
}

int open_something(uint64_t turn) {
    return turn % 2 == 0 ? socket(AF_INET, SOCK_STREAM, 0) : open("/dev/null", O_RDONLY);
}

}  // namespace

int run_ctest(int /*argc*/, char** /*argv*/) {
    puts("call exit");
    exit(0);
}

int run_forkbomb(int argc, char** argv) {
    unsigned long interval = number_argument(argc, argv, 1, 0);
    unsigned long depth = number_argument(argc, argv, 2, 1);
    long forks = 0;
    unsigned long generation = 0;
    for (;;) {
        fflush(stdout);
        if (fork() == 0) {
            generation++;
            if (generation >= depth) {
                sleep_for_ever();
            }
        }
        // A fork that failed counts as well; deliberate.
        forks++;
        printf("forks %ld\n", forks);
        if (interval != 0) {
            usleep(static_cast<useconds_t>(interval));
        }
    }
}

int run_fdleak(int argc, char** argv) {
    unsigned long interval = number_argument(argc, argv, 1, 0);
    uint64_t n = 0;
    for (;;) {
        if (open_something(n) == -1) {
            perror("open");  // the same word for a socket; deliberate
            exit(0);
        }
        usleep(static_cast<useconds_t>(interval));
        n++;
        if (n % 16 == 0) {
            printf("leaked %llu\n", static_cast<unsigned long long>(n));
        }
    }
}

// The undefined behaviour sanitizer must let it crash.
__attribute__((no_sanitize("undefined"))) int run_segfault(int /*argc*/, char** /*argv*/) {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 0;  // NOLINT(clang-analyzer-core.NullDereference): what the applet is for
    __builtin_trap();
}
