#include "archive/pipeline.h"

#include <errno.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "archive/debug_archive.h"
#include "archive/gzip.h"
#include "common/fd_range.h"
#include "common/shared_object.h"
#include "common/sys_run.h"
#include "common/unique_pipe.h"

namespace {

constexpr int no_pid = -1;

// A download of a full archive moves at least this often while a slow member is made.
constexpr int full_flush_after_ms = 500;

// Shared by the builder and the compressor, its child. A process that is killed leaves the initial values
// unchanged.
struct shared_state {
    std::atomic<int> is_built{0};
    std::atomic<int> compressor_error{ECANCELED};
};

bool is_built(void* context) {
    return static_cast<const shared_state*>(context)->is_built != 0;
}

[[noreturn]] void run_compressor(unique_pipe* pipe, int out_fd, shared_state* shared, int flush_after_ms) {
    // Close it here, because fd_range_close_from may fail: a compressor that holds the write end of its own
    // input never reads end of file.
    pipe->write_end.reset();
    if (out_fd != STDOUT_FILENO) {
        dup2(out_fd, STDOUT_FILENO);
    }
    dup2(pipe->read_end.get(), STDIN_FILENO);
    pipe->read_end.reset();  // fd_range_close_from may need a free descriptor
    // A browser sees the end of its download only when the last copy of its connection is closed. Without
    // this the daemon's other downloads would last as long as this archive.
    fd_range_close_from(STDERR_FILENO + 1);
    shared->compressor_error = stream_gzip(is_built, shared, flush_after_ms);
    _exit(0);
}

struct wanted_archive {
    int browser_fd;
    archive_form form;
};

int build_debug_archive(void* context, int pipe_fd, int compressor_pid) {
    const wanted_archive* wanted = static_cast<const wanted_archive*>(context);
    return stream_debug_archive(pipe_fd, compressor_pid, wanted->browser_fd, wanted->form);
}

// Reports errno as the error of `call` and returns it.
int report(const char* call) {
    const int error = errno;
    perror(call);
    return error;
}

}  // namespace

int stream_compressed(int fd, int (*build)(void*, int, int), void* context, int flush_after_ms) {
    shared_object<shared_state> shared;
    if (!shared) {
        return report("mmap");
    }
    unique_pipe pipe = pipe_open();
    if (!pipe) {
        return report("pipes");
    }
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        return report("fork");
    }
    if (pid == 0) {
        run_compressor(&pipe, fd, shared.get(), flush_after_ms);
    }
    pipe.read_end.reset();
    const int build_error = build(context, pipe.write_end.get(), pid);
    shared->is_built = build_error == 0 ? 1 : 0;
    pipe.write_end.reset();
    int status;
    (void)sys_wait_end(pid, &status, 0);
    // If the compressor fails, the builder sees only EPIPE, or nothing. The compressor knows the reason.
    const bool ask_compressor = build_error == 0 || build_error == EPIPE;
    return ask_compressor ? shared->compressor_error.load() : build_error;
}

int stream_tgz(int fd, archive_form form) {
    wanted_archive wanted = {fd, form};
    const int flush_after_ms = form == archive_form::full ? full_flush_after_ms : 0;
    return stream_compressed(fd, build_debug_archive, &wanted, flush_after_ms);
}

int stream_tar(int fd, archive_form form) {
    return stream_debug_archive(fd, no_pid, fd, form);
}
