// bench_stream MIB: sends MIB mebibytes through the archive pipeline to /dev/null, and prints the memory of
// builder and compressor in kB: "before RSS PSS" (the builder alone, before the stream), "during RSS PSS"
// (the largest sums of both processes), "peak RSS" (the sum of both high-water marks at the end).
//
// Sizes are those of smaps_rollup, which are exact. The ones in status may be late by up to 32 pages for each
// processor.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "archive/pipeline.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"

namespace {

constexpr unsigned mebibyte = 1 << 20;
constexpr int mib_between_samples = 4;

// Static, so that all of it is in memory before the first sample.
char block[mebibyte];

struct memory_kb {
    long rss = 0;
    long pss = 0;
};

struct stream_run {
    int mib;
    memory_kb during;
    long peak_rss = 0;
};

// The number after `key` in the file /proc/PID/NAME. A missing key or file ends the program, because a
// measurement of zero would look good.
long proc_number(int pid, const char* name, const char* key) {
    char path[64];
    char text[4096];
    snprintf(path, sizeof path, "/proc/%d/%s", pid, name);
    unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    ssize_t got = file ? safe_read(file.get(), text, sizeof text - 1) : -1;
    text[got > 0 ? got : 0] = 0;
    const char* found = strstr(text, key);
    if (!found) {
        fprintf(stderr, "bench_stream: no %s in %s\n", key, path);
        _exit(1);
    }
    return strtol(found + strlen(key), nullptr, 10);
}

memory_kb memory_of(int pid) {
    return {proc_number(pid, "smaps_rollup", "\nRss:"), proc_number(pid, "smaps_rollup", "\nPss:")};
}

// Three quarters are lines of small numbers, like those of /proc. The rest cannot be compressed.
void fill_block() {
    uint32_t state = 1;
    auto next = [&state] { return state = state * 1664525 + 1013904223; };
    unsigned used = 0;
    while (used < mebibyte / 4 * 3) {
        used += static_cast<unsigned>(snprintf(block + used, sizeof block - used, "cpu%u %u kB %u\n",
                                               next() >> 30, next() >> 20, next() >> 24));
    }
    for (; used < mebibyte; used++) {
        block[used] = static_cast<char>(next() >> 24);
    }
}

void sample(stream_run* run, int compressor_pid) {
    memory_kb builder = memory_of(getpid());
    memory_kb compressor = memory_of(compressor_pid);
    run->during.rss = std::max(run->during.rss, builder.rss + compressor.rss);
    run->during.pss = std::max(run->during.pss, builder.pss + compressor.pss);
}

int write_all(void* context, int pipe_fd, int compressor_pid) {
    stream_run* run = static_cast<stream_run*>(context);
    for (int i = 1; i <= run->mib; i++) {
        if (safe_write(pipe_fd, block, mebibyte) < 0) {
            perror("bench_stream");
            _exit(1);
        }
        if (i % mib_between_samples == 0) {
            sample(run, compressor_pid);
        }
    }
    run->peak_rss =
        proc_number(getpid(), "status", "\nVmHWM:") + proc_number(compressor_pid, "status", "\nVmHWM:");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    stream_run run = {};
    run.mib = argc > 1 ? atoi(argv[1]) : 0;
    unique_fd sink(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (run.mib < mib_between_samples || !sink) {
        fputs("usage: bench_stream MIB\n", stderr);
        return 2;
    }
    fill_block();
    (void)memory_of(getpid());  // now everything that reading needs is in memory
    memory_kb before = memory_of(getpid());
    (void)stream_compressed(sink.get(), write_all, &run);
    printf("before %ld %ld\nduring %ld %ld\npeak %ld\n", before.rss, before.pss, run.during.rss,
           run.during.pss, run.peak_rss);
    return 0;
}
