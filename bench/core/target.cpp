// A process to be dumped: it has memory and threads, and measures the longest time between two readings of
// the clock.
//
// usage: bench_core_target TOUCHED_MB RESERVED_MB THREADS
// Prints "ready" when everything is set up. For each line of standard input, it prints the longest gap since
// the previous line, in microseconds.
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace {

constexpr long poll_interval_ns = 100'000;

int64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

unsigned char* reserve(size_t megabytes) {
    void* memory = mmap(nullptr, std::max<size_t>(megabytes, 1) << 20, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        abort();
    }
    return static_cast<unsigned char*>(memory);
}

// The content is different everywhere, so the dumper cannot leave anything out.
void touch(unsigned char* memory, size_t length) {
    unsigned seed = 1;
    for (size_t at = 0; at + sizeof seed <= length; at += sizeof seed) {
        seed = seed * 1664525 + 1013904223;
        memcpy(memory + at, &seed, sizeof seed);
    }
}

// Prints a line for each byte of input.
void watch_clock() {
    int64_t longest = 0, last = now_ns();
    for (;;) {
        timespec pause = {0, poll_interval_ns};
        pollfd asked = {STDIN_FILENO, POLLIN, 0};
        int found = ppoll(&asked, 1, &pause, nullptr);
        int64_t now = now_ns();
        longest = std::max(longest, now - last);
        last = now;
        if (found > 0) {
            char byte = 0;
            if (read(STDIN_FILENO, &byte, 1) != 1) {
                return;
            }
            printf("%lld\n", static_cast<long long>(longest / 1000));
            fflush(stdout);
            longest = 0;
            last = now_ns();
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    size_t touched = strtoul(argv[1], nullptr, 10), reserved = strtoul(argv[2], nullptr, 10);
    touch(reserve(std::max(touched, reserved)), touched << 20);
    for (unsigned long i = strtoul(argv[3], nullptr, 10); i > 0; i--) {
        std::thread([] {
            for (;;) {
                pause();
            }
        }).detach();
    }
    puts("ready");
    fflush(stdout);
    watch_clock();
    _exit(0);
}
