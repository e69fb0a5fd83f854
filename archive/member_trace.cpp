#include "archive/member_trace.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "common/padding.h"
#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "trace/strace.h"

namespace {

struct trace_sink {
    int fd;
    int remaining;  // bytes of the promised size that are still to come
    bool failed;
    int error;  // errno of the failed write
};

// Returns whether the trace is to go on.
int32_t write_budgeted(void* cookie, const char* text, int length) {
    trace_sink* sink = static_cast<trace_sink*>(cookie);
    int piece = std::min(length, sink->remaining);
    if (safe_write(sink->fd, text, static_cast<unsigned>(piece)) < 0) {
        sink->failed = true;
        sink->error = errno;
        return 0;
    }
    sink->remaining -= piece;
    return sink->remaining > 0;
}

}  // namespace

int stream_strace_log(tar_handle* t, const int* pids, int count) {
    // The engine marks what it could not trace or saw end; those processes are still to be dumped.
    unique_malloc<pid_t> traced(static_cast<pid_t*>(calloc(static_cast<size_t>(count) + 1, sizeof(pid_t))));
    if (!traced) {
        return 1;
    }
    std::copy_n(pids, count, traced.get());
    trace_sink sink = {t->fd, strace_budget, false, 0};
    tar_addfile(t, "strace.log", strace_budget);
    strace_ctx ctx = {};
    ctx.write = write_budgeted;
    ctx.cookie = &sink;
    ctx.flags = strace_everything;
    ctx.pids = traced.get();
    ctx.nr_pids = count;
    ctx.seconds = strace_seconds;
    do_strace(&ctx);
    if (sink.failed) {
        fprintf(stderr, "%s: write failed: %s\n", "stream_strace_log", strerror(sink.error));
        return 1;
    }
    pad_ascii(t->fd, sink.remaining);
    tar_fakewrite(t, strace_budget);
    return 0;
}
