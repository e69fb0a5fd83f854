#include "trace/tracer_command.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string_view>

#include "common/sys_run.h"
#include "common/unique_fd.h"
#include "trace/ptrace_ops.h"

namespace {

constexpr const char* default_path = "/bin:/sbin:/usr/bin:/usr/sbin:/usr/local/bin";

// How many repeated signals a command may survive if the tracer ends by another signal than SIGINT: 3 s.
constexpr int end_ticks = 3000 / tracer_repeat_ms;

std::atomic<bool> stop_flag{false};
volatile sig_atomic_t ending_signal = 0;
timer_t repeat_timer;
bool repeat_timer_made = false;

void start_repeat() {
    itimerspec when = {};
    when.it_interval.tv_nsec = tracer_repeat_ms * 1000000L;
    when.it_value = when.it_interval;
    if (repeat_timer_made) {
        timer_settime(repeat_timer, 0, &when, nullptr);
    }
}

void on_end(int sig) {
    int saved = errno;
    if (sig != SIGINT) {
        ending_signal = sig;
    }
    tracer_stop();
    errno = saved;
}

void catch_signal(int sig) {
    struct sigaction action = {};
    action.sa_handler = on_end;
    sigaction(sig, &action, nullptr);
}

void set_up_signals() {
    signal(SIGALRM, SIG_IGN);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGINT;
    repeat_timer_made = timer_create(CLOCK_MONOTONIC, &event, &repeat_timer) == 0;
    catch_signal(SIGINT);
    for (int sig : {SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction before = {};
        if (sigaction(sig, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            catch_signal(sig);
        }
    }
}

// Ends this process by the signal that ended the trace, if it was not SIGINT.
void die_of_ending_signal() {
    if (ending_signal != 0) {
        signal(ending_signal, SIG_DFL);
        pthread_kill(pthread_self(), ending_signal);
    }
}

// Waits until standard output has no reader any more.
void* watch_reader(void* /*unused*/) {
    pollfd out = {STDOUT_FILENO, 0, 0};
    while (poll(&out, 1, -1) < 0) {
    }
    tracer_stop();
    return nullptr;
}

// If the thread cannot be started, the next write reports that the reader has gone.
void start_reader_watch() {
    struct stat status;
    if (fstat(STDOUT_FILENO, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode))) {
        return;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals must interrupt the tracing thread
    pthread_t watch;
    if (pthread_create(&watch, nullptr, watch_reader, nullptr) == 0) {
        pthread_detach(watch);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bool is_regular_file(const char* path) {
    struct stat status;
    return fstatat(AT_FDCWD, path, &status, 0) == 0 && S_ISREG(status.st_mode);
}

bool find_in(std::string_view directory, std::string_view name, char (&path)[tracer_path_size]) {
    if (directory.size() + name.size() >= sizeof path - 1) {
        return false;
    }
    size_t length = directory.copy(path, directory.size());
    path[length++] = '/';
    length += name.copy(path + length, name.size());
    path[length] = '\0';
    return is_regular_file(path);
}

bool find_on_path(std::string_view directories, std::string_view name, char (&path)[tracer_path_size]) {
    for (;;) {
        size_t colon = directories.find(':');
        if (find_in(directories.substr(0, colon), name, path)) {
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
    if (applet.ends_with_reader) {
        start_reader_watch();
    }
    do_strace(&ctx);
}

// Ends the command if it still runs, and reaps it. If SIGINT does not end it, it gets the signal that ends
// the tracer, and is not waited for any longer.
void end_child(pid_t child) {
    int status;
    if (waitpid(child, &status, WNOHANG) != 0) {
        return;
    }
    kill(child, SIGINT);
    // If there was no memory for a trace, the command is still in its first stop.
    (void)trace_detach_stopped(child, 0);
    int ticks = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        ticks += ending_signal != 0;
        if (ticks > end_ticks) {
            kill(child, ending_signal);
            return;
        }
    }
}

int trace_command(const tracer_applet& applet, char** command) {
    static char path[tracer_path_size];
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
    // A command that ended instead could not be started; the child has printed why.
    if (got == child && WIFSTOPPED(status)) {
        pid_t pids[] = {child};
        trace_pids(applet, pids, 1, true);
        end_child(child);
    }
    return 0;
}

int trace_requested(const char* name, const tracer_applet& applet, tracer_options* options) {
    if (options->command) {
        return trace_command(applet, options->command);
    }
    if (options->ignored_pids > 0) {
        fprintf(stderr, "%s: only the first %d pids are traced, not the other %d\n", name, tracer_max_pids,
                options->ignored_pids);
    }
    trace_pids(applet, options->pids, options->pid_count, false);
    return 0;
}

}  // namespace

bool tracer_is_stopped() {
    return stop_flag;
}

void tracer_stop() {
    if (!stop_flag.exchange(true)) {
        start_repeat();
    }
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
                options->ignored_pids++;
            }
        }
        at += 2;
    }
    if (options->pid_count == 0 && at < argc) {
        options->command = argv + at;
    }
    return options->pid_count > 0 || options->command;
}

bool tracer_find_program(const char* name, char (&path)[tracer_path_size]) {
    if (name[0] == '/') {
        return find_in("/", name, path);
    }
    if (name[0] == '.') {
        char current[tracer_path_size];
        // One byte less, for the slash at its end.
        if (!getcwd(current, sizeof current - 1)) {
            return false;
        }
        size_t length = strlen(current);
        current[length] = '/';
        return find_in(std::string_view(current, length + 1), name, path);
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
    int status = trace_requested(argv[0], applet, &options);
    die_of_ending_signal();
    return status;
}
