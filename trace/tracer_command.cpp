#include "trace/tracer_command.h"

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "common/sys_run.h"
#include "common/unique_fd.h"

namespace {

constexpr const char* default_path = "/bin:/sbin:/usr/bin:/usr/sbin:/usr/local/bin";

volatile sig_atomic_t stop_flag = 0;
timer_t repeat_timer;
bool repeat_timer_made = false;

void set_repeat(long every_ms) {
    itimerspec when = {};
    when.it_interval.tv_nsec = every_ms * 1000000;
    when.it_value = when.it_interval;
    if (repeat_timer_made) {
        timer_settime(repeat_timer, 0, &when, nullptr);
    }
}

void on_interrupt(int /*sig*/) {
    if (!stop_flag) {
        int saved = errno;
        stop_flag = 1;
        set_repeat(tracer_repeat_ms);
        errno = saved;
    }
}

void set_up_signals() {
    signal(SIGALRM, SIG_IGN);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGINT;
    repeat_timer_made = timer_create(CLOCK_MONOTONIC, &event, &repeat_timer) == 0;
    struct sigaction action = {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

bool is_regular_file(const char* path) {
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

bool find_below(std::string_view directory, std::string_view name, char (&path)[tracer_path_room]) {
    if (directory.size() + name.size() >= sizeof path - 1) {
        return false;
    }
    size_t length = directory.copy(path, directory.size());
    path[length++] = '/';
    length += name.copy(path + length, name.size());
    path[length] = '\0';
    return is_regular_file(path);
}

bool find_on_path(std::string_view directories, std::string_view name, char (&path)[tracer_path_room]) {
    for (;;) {
        size_t colon = directories.find(':');
        if (find_below(directories.substr(0, colon), name, path)) {
            return true;
        }
        if (colon == directories.npos) {
            return false;
        }
        directories.remove_prefix(colon + 1);
    }
}

void trace_pids(const tracer_applet& applet, pid_t* pids, int count, bool attached) {
    strace_ctx ctx = {};
    ctx.write = applet.write;
    ctx.on_exit = applet.on_exit;
    ctx.cookie = reinterpret_cast<void*>(  // NOLINT(performance-no-int-to-ptr)
        static_cast<intptr_t>(STDOUT_FILENO));
    ctx.flags = applet.flags;
    ctx.pids = pids;
    ctx.nr_pids = count;
    ctx.seconds = -1;
    ctx.attached = attached;
    do_strace(&ctx);
}

// Ends the child if it is still there; returns when it has been waited for.
void end_child(pid_t child) {
    int status;
    pid_t got = waitpid(child, &status, WNOHANG);
    if (got != 0) {
        return;
    }
    kill(child, SIGINT);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

int trace_command(const tracer_applet& applet, char** command) {
    static char path[tracer_path_room];
    if (!tracer_find_program(command[0], path)) {
        return 1;
    }
    pid_t child = sys_run_nowait(path, command, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 1);
    if (child < 0) {
        return 0;
    }
    int status = 0;
    pid_t got;
    do {
        got = waitpid(child, &status, 0);
    } while (got < 0 && errno == EINTR);
    // Without a stop it could not be started, and has said so.
    if (got == child && WIFSTOPPED(status)) {
        pid_t pids[] = {child};
        trace_pids(applet, pids, 1, true);
        set_repeat(0);
        end_child(child);
    }
    return 0;
}

}  // namespace

bool tracer_stopped() {
    return stop_flag != 0;
}

bool tracer_parse(int argc, char** argv, tracer_options* options) {
    int at = 1;
    while (at < argc && argv[at][0] == '-') {
        if (argv[at][1] != 'p') {
            return false;
        }
        if (at + 1 < argc) {
            pid_t pid = static_cast<pid_t>(strtoul(argv[at + 1], nullptr, 0));
            if (options->pid_count < tracer_max_pids) {
                options->pids[options->pid_count++] = pid;
            } else {
                options->pids_left_out++;
            }
        }
        at += 2;
    }
    if (options->pid_count == 0 && at < argc) {
        options->command = argv + at;
    }
    return options->pid_count > 0 || options->command;
}

bool tracer_find_program(const char* name, char (&path)[tracer_path_room]) {
    if (name[0] == '/') {
        return find_below("/", name, path);
    }
    if (name[0] == '.') {
        char current[tracer_path_room];
        // Room for the slash at its end.
        if (!getcwd(current, sizeof current - 1)) {
            return false;
        }
        size_t length = strlen(current);
        current[length] = '/';
        return find_below(std::string_view(current, length + 1), name, path);
    }
    const char* directories = getenv("PATH");
    return find_on_path(directories ? directories : default_path, name, path);
}

int tracer_run(int argc, char** argv, const tracer_applet& applet) {
    tracer_options options;
    if (!tracer_parse(argc, argv, &options)) {
        puts(applet.usage);
        return 0;
    }
    set_up_signals();
    if (options.command) {
        return trace_command(applet, options.command);
    }
    if (options.pids_left_out > 0) {
        fprintf(stderr, "%s: only the first %d pids are traced, not the other %d\n", argv[0], tracer_max_pids,
                options.pids_left_out);
    }
    trace_pids(applet, options.pids, options.pid_count, false);
    return 0;
}
