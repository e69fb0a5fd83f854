#include "archive/member_trace.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "archive/manifest.h"
#include "archive/output.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "trace/strace.h"

namespace {

// Collects the text of the trace. Writes do not block while the trace is running: if the archive's reader is
// one of the stopped processes, a blocking write would never return. Text that cannot be written at once
// waits in `text`.
struct trace_sink {
    tar_handle* tar;
    char* text;          // of strace_budget bytes
    int length = 0;      // bytes received
    int written = 0;     // how many of them were written
    uint32_t started_s;  // ptime()
    bool has_failed = false;
    int error = 0;  // errno of the failed write
};

void set_error(trace_sink* sink) {
    sink->has_failed = true;
    sink->error = errno;
}

void flush_some(trace_sink* sink) {
    while (!sink->has_failed && sink->written < sink->length) {
        const size_t left = static_cast<size_t>(sink->length - sink->written);
        const ssize_t count = output_write_some(sink->tar, sink->text + sink->written, left);
        if (count >= 0) {
            sink->written += static_cast<int>(count);
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            set_error(sink);
        }
    }
}

// The trace calls this with its text and, from time to time, without text. Returns 0 to stop the trace,
// else 1.
int32_t receive_text(void* cookie, const char* text, int length) {
    trace_sink* sink = static_cast<trace_sink*>(cookie);
    const int kept = std::min(length, strace_budget - sink->length);
    std::copy_n(text, kept, sink->text + sink->length);
    sink->length += kept;
    flush_some(sink);
    // The engine's own limit begins with the trace. This one also covers the wait for another trace to end.
    const bool is_over = ptime() - sink->started_s > static_cast<uint32_t>(strace_seconds) + 1;
    return !sink->has_failed && sink->length < strace_budget && !is_over;
}

// Writes the remaining text, after all processes were detached.
void flush_rest(trace_sink* sink) {
    const size_t left = static_cast<size_t>(sink->length - sink->written);
    if (!sink->has_failed && !output_write(sink->tar, sink->text + sink->written, left)) {
        set_error(sink);
    }
}

}  // namespace

int stream_strace_log(tar_handle* t, const int* pids, int count, bool timed) {
    // A copy: do_strace removes the processes that it could not trace, which must still be dumped.
    malloc_array<pid_t> traced = calloc_array<pid_t>(static_cast<size_t>(count) + 1);
    unique_malloc<char> text(static_cast<char*>(malloc(strace_budget)));
    if (!traced || !text) {
        manifest_note(t, "strace.log", ENOMEM);
        return 0;
    }
    std::copy_n(pids, count, traced.get());
    trace_sink sink = {.tar = t, .text = text.get(), .started_s = ptime()};
    tar_addfile(t, "strace.log", strace_budget);
    strace_ctx ctx = {};
    ctx.write = receive_text;
    ctx.cookie = &sink;
    ctx.flags = strace_everything;
    ctx.pids = traced.get();
    ctx.nr_pids = count;
    ctx.seconds = strace_seconds;
    ctx.timed = timed;
    do_strace(&ctx);
    flush_rest(&sink);
    if (sink.has_failed) {
        fprintf(stderr, "%s: write failed: %s\n", "stream_strace_log", strerror(sink.error));
        return 1;
    }
    (void)output_pad_text(t, strace_budget - sink.length);  // the handle keeps its error
    tar_fakewrite(t, strace_budget);
    return 0;
}
