#include "monitor/rtrace_apps.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

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

constexpr size_t interval_room = 10;
constexpr unsigned read_limit = rtrace_data_capacity - 1;

using words = char * [rtrace_app::words_capacity];

// execve takes its words without const but leaves them alone.
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
    char interval[interval_room];
    if (app.interval_position > 0) {
        // A number that is too long for the room is cut.
        (void)!snprintf(interval, sizeof interval, "%d", trace.interval);
        argv[app.interval_position] = interval;
    }
    return sys_run_envp_nowait(path, argv, envp, STDIN_FILENO, out_fd, STDERR_FILENO, 0);
}

// False when there is no pipe.
bool start_app(const rtrace_context& trace, const rtrace_app& app, rtrace_apps& apps) {
    int number = apps.count;
    if (pipe2(apps.pipes[number], O_CLOEXEC) != 0) {
        return false;
    }
    apps.count++;
    apps.types[number] = app.type;
    apps.pids[number] = start_program(trace, app, apps.pipes[number][1]);
    return true;
}

bool start_selected(const rtrace_context& trace, rtrace_apps& apps) {
    for (const rtrace_app& app : rtrace_app_table) {
        if ((trace.mask & app.source) != 0 && !start_app(trace, app, apps)) {
            return false;
        }
    }
    return true;
}

// One read of what an app has printed, as one record.
bool pass_output_on(rtrace_context& trace, int from, uint32_t type) {
    rtrace_sink sink = {trace.fd, trace.room};
    ssize_t got = read(from, rtrace_data(sink), read_limit);
    return got <= 0 || rtrace_write_data(sink, static_cast<rtrace_type>(type), rtrace_no_pid,
                                         static_cast<unsigned>(got), 0);
}

}  // namespace

int rtrace_start_apps(rtrace_context* context, rtrace_apps** block_out) {
    bool any = std::any_of(std::begin(rtrace_app_table), std::end(rtrace_app_table),
                           [context](const rtrace_app& app) { return (context->mask & app.source) != 0; });
    rtrace_apps* block = any ? static_cast<rtrace_apps*>(calloc(1, sizeof(rtrace_apps))) : nullptr;
    if (!block) {
        return 0;
    }
    (start_selected(*context, *block) ? *block_out : context->unread) = block;
    return 0;
}

bool rtrace_read_apps(rtrace_context& context, const rtrace_apps& apps) {
    if (context.interval < 0) {
        return false;
    }
    pollfd waiting[1 + rtrace_apps_capacity] = {rtrace_client(context.fd)};
    for (int i = 0; i < apps.count; i++) {
        waiting[1 + i] = {apps.pipes[i][0], POLLIN, 0};
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
            if (!pass_output_on(context, apps.pipes[i][0], apps.types[i])) {
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
        close(block->pipes[i][0]);
        close(block->pipes[i][1]);
    }
    for (int i = 0; i < block->count; i++) {
        // No process: what kill does with such a number would hit others.
        if (block->pids[i] > 0) {
            sys_end_child(block->pids[i], SIGTERM, rtrace_app_patience_ms);
        }
    }
    free(block);
    return 0;
}
