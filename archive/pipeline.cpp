#include "archive/pipeline.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "archive/debug_archive.h"
#include "archive/gzip.h"
#include "common/fd_range.h"
#include "common/shared_object.h"
#include "common/sys_run.h"
#include "common/unique_fd.h"

namespace {

constexpr int no_pid = -1;

// What builder and compressor tell each other. A builder that has ended without a word, killed with the
// daemon for instance, has not built a whole archive.
struct agreement {
    std::atomic<int> is_built{0};
    // As long as the compressor has not said how it went, it was killed.
    std::atomic<int> compressor_error{ECANCELED};
};

bool is_built(void* context) {
    return static_cast<const agreement*>(context)->is_built != 0;
}

[[noreturn]] void run_compressor(int pipe_fd, int pipe_write_fd, int out_fd, agreement* told) {
    // By name, so that the end of the input does not depend on the closing of the others below.
    close(pipe_write_fd);
    if (out_fd != STDOUT_FILENO) {
        dup2(out_fd, STDOUT_FILENO);
    }
    dup2(pipe_fd, STDIN_FILENO);
    close(pipe_fd);  // leaves a free descriptor for the closing below, even where all are in use
    // Whatever else the daemon has open (other browsers' connections above all) must not stay open for as
    // long as this archive takes.
    fd_range_close_from(STDERR_FILENO + 1);
    told->compressor_error = stream_gzip(is_built, told);
    _exit(0);
}

int build_debug_archive(void* context, int pipe_fd, int compressor_pid) {
    const int* browser_fd = static_cast<const int*>(context);
    return stream_debug_archive(pipe_fd, compressor_pid, *browser_fd);
}

// Reports what failed, and returns why.
int report(const char* call) {
    const int error = errno;
    perror(call);
    return error;
}

}  // namespace

int stream_compressed(int fd, int (*build)(void*, int, int), void* context) {
    shared_object<agreement> told;
    if (!told) {
        return report("mmap");
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        return report("pipes");
    }
    unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        return report("fork");
    }
    if (pid == 0) {
        run_compressor(read_end.get(), write_end.get(), fd, told.get());
    }
    read_end.reset();
    const int build_error = build(context, write_end.get(), pid);
    told->is_built = build_error == 0 ? 1 : 0;
    write_end.reset();
    int status;
    (void)sys_wait_end(pid, &status, 0);
    // What the builder noticed of a compressor that failed is only that its pipe broke.
    const bool pipe_broke = build_error == 0 || build_error == EPIPE;
    return pipe_broke ? told->compressor_error.load() : build_error;
}

int stream_tgz(int fd) {
    return stream_compressed(fd, build_debug_archive, &fd);
}

int stream_tar(int fd) {
    return stream_debug_archive(fd, no_pid);
}
