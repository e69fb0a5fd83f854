#include "monitor/rtrace_apps.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "common/sys_run.h"
#include "common/unique_fd.h"
#include "monitor/rtrace.h"
#include "monitor/rtrace_wait.h"

const rtrace_app rtrace_app_table[rtrace_apps_capacity] = {
    {rtrace_iostat, rtrace_type_iostat, {"/usr/bin/iostat", "-xcdk", "20"}, {}, 2},
    {rtrace_pellora,
     rtrace_type_pellora,
     {"/usr/bin/pellora", "-n"},
     {"GSTTL_LOG_NAME=-", "GSTTL_SHOW=gap", "LD_PRELOAD=/tmp/libgsttracelib.so"},
     0},
    {rtrace_event, rtrace_type_event, {"/usr/bin/eventlistener", "-s", "-r"}, {}, 0},
    {rtrace_pidstat, rtrace_type_pidstat, {"/usr/bin/pidstat", "20"}, {}, 1},
};

namespace {

constexpr size_t interval_size = 10;
constexpr unsigned read_limit = rtrace_data_capacity - 1;

using words = char * [rtrace_app::words_capacity];

// execve takes pointers to non-const words but does not change them.
void copy_words(const char* const (&from)[rtrace_app::words_capacity], words& to) {
    std::transform(std::begin(from), std::end(from), to,
                   [](const char* word) { return const_cast<char*>(word); });
}

pid_t start_program(const rtrace_context& trace, const rtrace_app& app, int out_fd) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s%s", trace.root, app.argv[0]);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return -1;
    }
    words argv;
    words envp;
    copy_words(app.argv, argv);
    copy_words(app.envp, envp);
    char interval[interval_size];
    if (app.interval_position > 0) {
        // A longer number is cut; deliberate.
        (void)!snprintf(interval, sizeof interval, "%d", trace.interval);
        argv[app.interval_position] = interval;
    }
    return sys_run_envp_nowait(path, argv, envp, STDIN_FILENO, out_fd, STDERR_FILENO, 0);
}

// False if the pipe cannot be created.
bool start_app(rtrace_apps* block, const rtrace_context& trace, const rtrace_app& row) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return false;
    }
    rtrace_apps::app& app = block->apps[block->count++];
    app.read_end.reset(ends[0]);
    app.write_end.reset(ends[1]);
    app.type = row.type;
    app.pid = start_program(trace, row, ends[1]);
    return true;
}

bool start_selected(rtrace_apps* block, const rtrace_context& trace) {
    for (const rtrace_app& row : rtrace_app_table) {
        if ((trace.mask & row.source) != 0 && !start_app(block, trace, row)) {
            return false;
        }
    }
    return true;
}

// Writes one read of an app's output as one record. False if the write fails.
bool record_output(rtrace_context& trace, const rtrace_apps::app& app) {
    rtrace_sink sink = {trace.fd, trace.buffer};
    ssize_t got = read(app.read_end.get(), rtrace_data(sink), read_limit);
    return got <= 0 || rtrace_write_data(sink, static_cast<rtrace_type>(app.type), rtrace_no_pid,
                                         static_cast<unsigned>(got), 0);
}

}  // namespace

rtrace_apps* rtrace_new_apps() {
    void* memory = malloc(sizeof(rtrace_apps));  // new would end the program if memory runs out
    return memory ? new (memory) rtrace_apps : nullptr;
}

int rtrace_start_apps(rtrace_context* context, rtrace_apps** block_out) {
    bool any = std::any_of(std::begin(rtrace_app_table), std::end(rtrace_app_table),
                           [context](const rtrace_app& app) { return (context->mask & app.source) != 0; });
    rtrace_apps* block = any ? rtrace_new_apps() : nullptr;
    if (!block) {
        return 0;
    }
    (start_selected(block, *context) ? *block_out : context->unread) = block;
    return 0;
}

bool rtrace_read_apps(rtrace_context& context, const rtrace_apps& apps) {
    if (context.interval < 0) {
        return false;
    }
    pollfd waiting[1 + rtrace_apps_capacity] = {rtrace_client(context.fd)};
    for (int i = 0; i < apps.count; i++) {
        waiting[1 + i] = {apps.apps[i].read_end.get(), POLLIN, 0};
    }
    const deadline end(context.interval * int64_t{1000});
    do {
        int ready = rtrace_poll(waiting, 1 + static_cast<nfds_t>(apps.count), end);
        if (ready <= 0) {
            return ready == 0;
        }
        for (int i = 0; i < apps.count; i++) {
            if (waiting[1 + i].revents == 0) {
                continue;
            }
            if (!record_output(context, apps.apps[i])) {
                return false;
            }
            waiting[1 + i] = {-1, 0, 0};
        }
    } while (!end.is_over());
    return true;
}

int rtrace_end_apps(rtrace_context* context, rtrace_apps* block) {
    if (!context || !block) {
        return -1;
    }
    for (int i = 0; i < block->count; i++) {
        block->apps[i].read_end.reset();
        block->apps[i].write_end.reset();
    }
    for (int i = 0; i < block->count; i++) {
        // Below 1 there is no process, and kill would signal a group or every process.
        if (block->apps[i].pid > 0) {
            sys_end_child(block->apps[i].pid, SIGTERM, rtrace_app_patience_ms);
        }
    }
    block->~rtrace_apps();
    free(block);
    return 0;
}
