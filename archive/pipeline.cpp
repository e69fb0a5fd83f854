#include "archive/pipeline.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "archive/debug_archive.h"
#include "archive/gzip.h"
#include "common/fd_range.h"
#include "common/sys_run.h"
#include "common/unique_fd.h"

namespace {

constexpr int no_pid = -1;

[[noreturn]] void run_compressor(int pipe_fd, int pipe_write_fd, int out_fd) {
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
    stream_gzip();
    _exit(0);
}

void build_debug_archive(void* context, int pipe_fd, int compressor_pid) {
    const int* browser_fd = static_cast<const int*>(context);
    stream_debug_archive(pipe_fd, compressor_pid, *browser_fd);
}

}  // namespace

void stream_compressed(int fd, void (*build)(void*, int, int), void* context) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        perror("pipes");
        return;
    }
    unique_fd read_end(ends[0]);
    unique_fd write_end(ends[1]);
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return;
    }
    if (pid == 0) {
        run_compressor(read_end.get(), write_end.get(), fd);
    }
    read_end.reset();
    build(context, write_end.get(), pid);
    write_end.reset();
    int status;
    (void)sys_wait_end(pid, &status, 0);
}

void stream_tgz(int fd) {
    stream_compressed(fd, build_debug_archive, &fd);
}

void stream_tar(int fd) {
    stream_debug_archive(fd, no_pid);
}
