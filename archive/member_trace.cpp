#include "archive/member_trace.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "common/padding.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "trace/strace.h"

namespace {

// Takes the text of the trace. While the trace is running nothing blocks: who reads the archive may be one of
// the processes that the trace holds. What can't be written at once stays in the memory of the whole member.
struct trace_sink {
    int fd;
    char* text;       // room for the promised size
    int length = 0;   // bytes that have come
    int written = 0;  // and how many of them have been written
    uint32_t began;   // in the seconds of ptime()
    bool failed = false;
    int error = 0;  // errno of the failed write
};

// Writes what has come, up to `length` bytes at once, and at most what does not block.
ssize_t write_some(int fd, const char* text, size_t length) {
    pollfd out = {fd, POLLOUT, 0};
    if (poll(&out, 1, 0) < 1) {
        errno = EAGAIN;
        return -1;
    }
    ssize_t put = send(fd, text, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put < 0 && errno == ENOTSOCK) {
        // A pipe that can be written to takes this much without blocking, and a file anything.
        put = write(fd, text, std::min<size_t>(length, PIPE_BUF));
    }
    return put;
}

void flush_some(trace_sink* sink) {
    while (!sink->failed && sink->written < sink->length) {
        ssize_t put = write_some(sink->fd, sink->text + sink->written,
                                 static_cast<size_t>(sink->length - sink->written));
        if (put >= 0) {
            sink->written += static_cast<int>(put);
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            sink->failed = true;
            sink->error = errno;
        }
    }
}

// Returns whether the trace is to go on.
int32_t write_budgeted(void* cookie, const char* text, int length) {
    trace_sink* sink = static_cast<trace_sink*>(cookie);
    int piece = std::min(length, strace_budget - sink->length);
    std::copy_n(text, piece, sink->text + sink->length);
    sink->length += piece;
    flush_some(sink);
    // A trace that another one keeps from its turn is given up when its time is over, give or take a second.
    bool out_of_time = ptime() - sink->began > static_cast<uint32_t>(strace_seconds) + 1;
    return !sink->failed && sink->length < strace_budget && !out_of_time;
}

// Writes what is left, now that nobody is held.
void flush_rest(trace_sink* sink) {
    unsigned left = static_cast<unsigned>(sink->length - sink->written);
    if (!sink->failed && safe_write(sink->fd, sink->text + sink->written, left) < 0) {
        sink->failed = true;
        sink->error = errno;
    }
}

}  // namespace

int stream_strace_log(tar_handle* t, const int* pids, int count) {
    // The engine marks what it could not trace or saw end; those processes are still to be dumped.
    unique_malloc<pid_t> traced(static_cast<pid_t*>(calloc(static_cast<size_t>(count) + 1, sizeof(pid_t))));
    unique_malloc<char> text(static_cast<char*>(malloc(strace_budget)));
    if (!traced || !text) {
        return 1;
    }
    std::copy_n(pids, count, traced.get());
    trace_sink sink = {.fd = t->fd, .text = text.get(), .began = ptime()};
    tar_addfile(t, "strace.log", strace_budget);
    strace_ctx ctx = {};
    ctx.write = write_budgeted;
    ctx.cookie = &sink;
    ctx.flags = strace_everything;
    ctx.pids = traced.get();
    ctx.nr_pids = count;
    ctx.seconds = strace_seconds;
    do_strace(&ctx);
    flush_rest(&sink);
    if (sink.failed) {
        fprintf(stderr, "%s: write failed: %s\n", "stream_strace_log", strerror(sink.error));
        return 1;
    }
    pad_ascii(t->fd, strace_budget - sink.length);
    tar_fakewrite(t, strace_budget);
    return 0;
}
