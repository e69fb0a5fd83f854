#include "archive/member_trace.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "archive/output.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "trace/strace.h"

namespace {

// Takes the text of the trace. While the trace is running nothing blocks: who reads the archive may be one of
// the processes that the trace holds. What can't be written at once stays in the memory of the whole member.
struct trace_sink {
    tar_handle* tar;
    char* text;       // room for the promised size
    int length = 0;   // bytes that have come
    int written = 0;  // and how many of them have been written
    uint32_t began;   // in the seconds of ptime()
    bool failed = false;
    int error = 0;  // errno of the failed write
};

void flush_some(trace_sink* sink) {
    while (!sink->failed && sink->written < sink->length) {
        ssize_t put = output_write_some(sink->tar, sink->text + sink->written,
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
    const size_t left = static_cast<size_t>(sink->length - sink->written);
    if (!sink->failed && !output_write(sink->tar, sink->text + sink->written, left)) {
        sink->failed = true;
        sink->error = errno;
    }
}

}  // namespace

int stream_strace_log(tar_handle* t, const int* pids, int count) {
    // The engine marks what it could not trace or saw end; those processes are still to be dumped.
    malloc_array<pid_t> traced = calloc_array<pid_t>(static_cast<size_t>(count) + 1);
    unique_malloc<char> text(static_cast<char*>(malloc(strace_budget)));
    if (!traced || !text) {
        return 0;
    }
    std::copy_n(pids, count, traced.get());
    trace_sink sink = {.tar = t, .text = text.get(), .began = ptime()};
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
    (void)output_pad_text(t, strace_budget - sink.length);  // a broken output shows in the handle
    tar_fakewrite(t, strace_budget);
    return 0;
}
