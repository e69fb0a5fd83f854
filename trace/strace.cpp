#include "trace/strace.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/deadline.h"
#include "common/ending.h"
#include "common/signal_map.h"
#include "common/sys_run.h"
#include "proc/proc_list.h"
#include "trace/arch_decode.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_process.h"

namespace {

// Taken of the whole wait status, in which SIGTRAP itself sets one of these bits: every SIGTRAP stop that is
// not a system call counts as an exit. Deliberate.
constexpr int exit_mask = 0x600;
constexpr long turn_pause_ns = 20000000;  // between two looks whether the trace before has ended
constexpr pid_t no_timer = -1;
constexpr useconds_t shortest_pause_us = 10;
constexpr useconds_t longest_pause_us = 1000;
constexpr int timer_patience_ms = 100;  // whoever ignores SIGINT has its children ignore it, too

pthread_mutex_t strace_lock = PTHREAD_MUTEX_INITIALIZER;

// The state of one trace besides its table.
struct trace_run {
    strace_ctx* ctx;
    int live = 0;  // processes that are traced and have not ended
    pid_t timer = no_timer;
    bool over = false;    // nothing more is to be dealt with
    int ready_count = 0;  // processes with an event, in the table's list
};

strace_process& process_at(const trace_run* run, int index) {
    return run->ctx->names->processes[index];
}

// Asks the caller whether to go on.
bool poll_caller(strace_ctx* ctx) {
    return !ctx->write || ctx->write(ctx->cookie, ctx->buf, 0) != 0;
}

// Waits for the trace that is running; false when the caller does not want to wait any longer.
bool take_turn(strace_ctx* ctx) {
    while (pthread_mutex_trylock(&strace_lock) != 0) {
        if (!poll_caller(ctx)) {
            return false;
        }
        timespec pause = {0, turn_pause_ns};
        (void)nanosleep(&pause, nullptr);
    }
    return true;
}

void read_name(pid_t pid, char (&name)[32]) {
    char path[30];
    snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    ssize_t length = read_file_once(path, name, sizeof name - 1);
    name[length > 0 ? length : 0] = '\0';
    if (const char* slash = strrchr(name, '/')) {
        memmove(name, slash + 1, strlen(slash + 1) + 1);
    }
}

// A process that can't be resumed is none of this trace's any more.
bool resume(trace_run* run, int index, int sig) {
    pid_t pid = run->ctx->pids[index];
    process_at(run, index).stopped = false;
    if (trace_syscall(pid, sig) == 0) {
        return true;
    }
    printf("WARNING: ptrace SYSCALL failed! %d\n", pid);
    trace_detach(pid);
    run->ctx->pids[index] = -1;
    return false;
}

void report_signal(trace_run* run, int index, int sig) {
    if (run->ctx->flags & strace_signals) {
        strace_printf(run->ctx, "\n[%d %s] ---  SIGNAL %d %s ---\n\n", run->ctx->pids[index],
                      process_at(run, index).name, sig, signal_map_sig2name(arch_target_signal(sig)));
    }
}

// A SIGCONT discards the stop signal of the attach that is still to come.
void renew_stop(const strace_process& process, pid_t pid, int sig) {
    if (process.attach_stop_due && sig == SIGCONT) {
        (void)trace_stop_thread(pid);
    }
}

// Without the exec event a traced process that execs would be sent a real SIGTRAP, and die of it.
bool set_options(const strace_ctx* ctx, pid_t pid) {
    long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC;
    if (ctx->flags & strace_exits) {
        options |= PTRACE_O_TRACEEXIT;
    }
    return trace_setoptions(pid, options) == 0;
}

// The signal that a process gets as it goes on from its first stop. An attach sends a stop signal, but a
// signal that was there before may stop the process first, and so may a stop that it was in: both are kept.
int first_signal(const strace_ctx* ctx, strace_process* process, pid_t pid, int status) {
    if (ctx->attached) {
        return 0;
    }
    bool taken_back = process->sigcont_due;
    int sig = trace_first_signal(pid, status, &process->attach_stop_due);
    process->attach_stop_due = process->attach_stop_due && !taken_back;
    return sig == SIGCONT ? strace_signal_of_stop(process, pid, status) : sig;
}

// Starts tracing the process whose first stop was waited for.
bool start(trace_run* run, int index, int status) {
    strace_ctx* ctx = run->ctx;
    pid_t pid = ctx->pids[index];
    strace_process& process = process_at(run, index);
    int sig = first_signal(ctx, &process, pid, status);
    process.joining = false;
    if (!set_options(ctx, pid)) {
        process.stopped = true;
        process.undelivered = sig;
        (void)strace_release(ctx, index);
        ctx->pids[index] = -1;
        return false;
    }
    read_name(pid, process.name);
    process.process = trace_look(pid).process;
    process.own_child = !ctx->attached && proc_ppid(pid) == getpid();
    if (sig != 0) {
        report_signal(run, index, sig);
    }
    renew_stop(process, pid, sig);
    return resume(run, index, sig);
}

void handle_event(trace_run* run, int index);

// Waits for the stop signal of an attach that did not come first: the process may be resumed and stop several
// times before. One that does not come is taken back, as that of a process that does not stop at all.
void await_attach_stop(trace_run* run, int index) {
    const deadline patience(strace_attach_patience_ms);
    strace_process& process = process_at(run, index);
    const pid_t* pid = &run->ctx->pids[index];
    for (useconds_t pause = shortest_pause_us; *pid != -1 && process.attach_stop_due;) {
        pid_t got = waitpid(*pid, &process.event, WNOHANG | trace_wait_flags);
        if (got > 0) {
            handle_event(run, index);
        } else if (process.sigcont_due || got < 0) {
            process.attach_stop_due = false;
        } else if (patience.is_over()) {
            // The signal may arrive before it is taken back; one more wait tells.
            trace_take_back_stop(*pid);
            process.sigcont_due = true;
        } else {
            usleep(pause);
            pause = std::min(2 * pause, longest_pause_us);
        }
    }
}

// Attaches to one process; drops it if that fails. No stop signal is on its way to it afterwards.
void join(trace_run* run, int index) {
    const ending_held held;
    strace_ctx* ctx = run->ctx;
    int status = 0;
    pid_t got = 1;
    if (!ctx->attached) {
        got = trace_attach_within(ctx->pids[index], strace_attach_patience_ms, &status);
    }
    if (got < 0 || (got > 0 && !ctx->attached && !WIFSTOPPED(status))) {
        ctx->pids[index] = -1;
    } else if (got == 0) {
        process_at(run, index).joining = true;
        process_at(run, index).sigcont_due = true;
        run->live++;
    } else if (start(run, index, status)) {
        run->live++;
        await_attach_stop(run, index);
    }
}

bool start_timer(trace_run* run) {
    if (run->ctx->seconds < 1) {
        return true;
    }
    char number[20];
    snprintf(number, sizeof number, "%d", run->ctx->seconds);
    char program[] = "/bin/sleep";
    char* const argv[] = {program, number, nullptr};
    run->timer = sys_run_nowait(program, argv, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0);
    return run->timer > 0;
}

void end_timer(trace_run* run) {
    if (run->timer > 0) {
        sys_end_child(run->timer, SIGINT, timer_patience_ms);
    }
}

void write_line(strace_ctx* ctx, int length) {
    if (length > 0 && length < ctx->bufsize) {
        strace_write_later(ctx, ctx->buf, length);
    }
}

void handle_return(strace_ctx* ctx, pid_t pid, strace_process* process) {
    int length =
        arch_dec_syscall_ret(ctx, pid, process, ctx->buf, ctx->bufsize, &process->entry, &process->ret);
    if (length < 0 || length >= ctx->bufsize) {
        fprintf(stderr, "%s: Unexpected length: %d\n", "strace_dec_syscall", length);
    }
    process->in_syscall = process->in_syscall && length == 0;
    write_line(ctx, length);
}

void handle_syscall(trace_run* run, int index) {
    strace_ctx* ctx = run->ctx;
    strace_process* process = &process_at(run, index);
    pid_t pid = ctx->pids[index];
    if (!(ctx->flags & strace_calls)) {
        return;
    }
    if (process->in_syscall) {
        return handle_return(ctx, pid, process);
    }
    int length = arch_dec_syscall(ctx, pid, process, ctx->buf, ctx->bufsize, &process->entry);
    if (length == -1) {
        return handle_return(ctx, pid, process);
    }
    process->in_syscall = true;
    write_line(ctx, length);
}

// Lets a process go that is about to end. Its end, if it were waited for here, could not be waited for by the
// part of this program that started it.
void leave_to_parent(trace_run* run, int index) {
    (void)ptrace(PTRACE_DETACH, run->ctx->pids[index], nullptr, nullptr);
    run->ctx->pids[index] = -1;
    run->over = --run->live <= 0;
}

// Resumes a process. Where exits are reported, one that has been killed since it stopped stands at its end by
// now, and resuming it would step over that.
void go_on(trace_run* run, int index, int sig) {
    strace_process& process = process_at(run, index);
    if ((run->ctx->flags & strace_exits) != 0 &&
        waitpid(run->ctx->pids[index], &process.event, WNOHANG | trace_wait_flags) > 0) {
        handle_event(run, index);
    } else {
        resume(run, index, sig);
    }
}

void handle_signal(trace_run* run, int index, int sig) {
    if (sig != 0) {
        report_signal(run, index, sig);
    }
    renew_stop(process_at(run, index), run->ctx->pids[index], sig);
    go_on(run, index, sig);
}

// Reports the stop of a process and resumes it.
void handle_stop(trace_run* run, int index, int status) {
    strace_process& process = process_at(run, index);
    int sig = WSTOPSIG(status);
    if (process.joining) {
        run->live -= !start(run, index, status);
    } else if (sig == strace_syscall_stop) {
        handle_syscall(run, index);
        go_on(run, index, 0);
    } else if (sig == SIGTRAP && (status & exit_mask) != 0) {
        strace_exit(run->ctx, run->ctx->pids[index], strace_exit_stop, 0, nullptr);
        if (process.own_child && status >> 16 == PTRACE_EVENT_EXIT) {
            leave_to_parent(run, index);
        } else {
            go_on(run, index, SIGTRAP);
        }
    } else if (sig == SIGSTOP && process.attach_stop_due) {
        process.attach_stop_due = false;
        go_on(run, index, 0);
    } else {
        handle_signal(run, index, strace_signal_of_stop(&process, run->ctx->pids[index], status));
    }
}

// Keeps the event of a process in mind when the trace ends before it is dealt with.
void keep_event(trace_run* run, int index) {
    strace_process& process = process_at(run, index);
    if (!WIFSTOPPED(process.event)) {
        run->ctx->pids[index] = -1;
        return;
    }
    pid_t pid = run->ctx->pids[index];
    process.stopped = true;
    process.undelivered = process.joining ? first_signal(run->ctx, &process, pid, process.event)
                                          : strace_signal_of_stop(&process, pid, process.event);
}

// Deals with the event of a process.
void handle_event(trace_run* run, int index) {
    strace_process& process = process_at(run, index);
    if (WIFSTOPPED(process.event)) {
        process.stopped = true;
        handle_stop(run, index, process.event);
    } else if (WIFEXITED(process.event)) {
        run->ctx->pids[index] = -1;
        run->over = --run->live <= 0;
    } else if (WIFSIGNALED(process.event)) {
        run->ctx->pids[index] = -1;
        run->live--;
    }
}

void note_event(trace_run* run, pid_t pid, int status) {
    strace_ctx* ctx = run->ctx;
    if (pid == run->timer) {
        run->timer = no_timer;
        run->over = true;
        return;
    }
    const int holder = strace_index(ctx, pid);
    int index = strace_index_of_event(ctx, pid, status);
    if (index < 0) {
        return;
    }
    run->live -= holder >= 0 && holder != index;
    strace_process& process = process_at(run, index);
    process.event = status;
    if (ctx->nr_pids < 0) {
        printf("pid=%d i=%d, nr_pids=%d\n", pid, -1, ctx->nr_pids);
        keep_event(run, index);
    } else if (!process.ready) {
        // One that is ready already has been killed while it was stopped; its end counts.
        process.ready = true;
        run->ctx->names->ready[run->ready_count++] = index;
    }
}

// Waits once, and notes what came. Returns whether there was anything.
bool wait_once(trace_run* run, int flags) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, flags | trace_wait_flags);
    if (pid == 0) {
        return false;
    }
    int error = errno;
    run->over = run->over || !poll_caller(run->ctx);
    if (pid > 0) {
        note_event(run, pid, status);
    } else if (error == ECHILD) {
        run->over = true;
    } else if (error == EINTR) {
        run->over = run->over || !poll_caller(run->ctx);
    }
    return pid > 0;
}

// Waits for events and deals with them. All that are there are waited for first: the kernel hands out the
// first process of its list that has one, and those at its end, or the timer, would never have their turn.
// Returns whether the trace goes on.
bool trace_round(trace_run* run) {
    bool more = wait_once(run, 0);
    while (more && !run->over && run->ready_count < run->live + (run->timer > 0)) {
        more = wait_once(run, WNOHANG);
    }
    for (int i = 0; i < run->ready_count; i++) {
        int index = run->ctx->names->ready[i];
        process_at(run, index).ready = false;
        if (run->ctx->pids[index] == -1) {
            continue;  // an exec has taken its number
        }
        if (run->over) {
            keep_event(run, index);
        } else {
            handle_event(run, index);
        }
    }
    run->ready_count = 0;
    strace_write_pending(run->ctx);
    return !run->over;
}

bool make_buffer(strace_ctx* ctx) {
    if (ctx->buf && ctx->bufsize > 0) {
        return true;
    }
    free(ctx->buf);
    ctx->buf = static_cast<char*>(malloc(strace_buffer_size));
    ctx->bufsize = strace_buffer_size;
    return ctx->buf != nullptr;
}

void close_dirs(strace_names* names) {
    for (int i = 0; i <= names->count; i++) {
        unique_fd closed(names->processes[i].fd_dir);
    }
}

// Takes hold of all processes of the list. One that took all the patience is as long as a wait: the caller
// may end the trace behind it, and those that follow in the list are left alone.
void join_all(trace_run* run) {
    strace_ctx* ctx = run->ctx;
    for (int i = 0; i < ctx->names->count; i++) {
        if (ctx->pids[i] == -1) {
            continue;
        }
        if (run->over) {
            ctx->pids[i] = -1;
            continue;
        }
        join(run, i);
        // Whatever became of this one, others are still to join.
        run->over = process_at(run, i).joining && !poll_caller(ctx);
    }
}

void trace(strace_ctx* ctx) {
    trace_run run = {ctx};
    join_all(&run);
    if (run.live == 0) {
        return;
    }
    if (!run.over && start_timer(&run)) {
        while (trace_round(&run)) {
        }
    }
    end_timer(&run);
    for (int i = 0; i < ctx->names->count; i++) {
        if (ctx->pids[i] != -1 && (ctx->flags & strace_fds)) {
            strace_show_fdinfo_all(ctx, ctx->pids[i]);
        }
    }
    strace_release_all(ctx);
}

}  // namespace

void do_strace(strace_ctx* ctx) {
    int count = ctx->nr_pids > 0 ? ctx->nr_pids : 0;
    strace_names names;
    names.count = count;
    names.processes = calloc_array<strace_process>(static_cast<size_t>(count) + 1);
    names.ready = calloc_array<int>(static_cast<size_t>(count) + 1);
    if (names.processes && names.ready && make_buffer(ctx) && take_turn(ctx)) {
        names.sockets = socket_cache_new();
        names.pending.reset(static_cast<char*>(count > 1 ? malloc(strace_buffer_size) : nullptr));
        for (int i = 0; i <= count; i++) {
            names.processes[i].fd_dir = -1;
        }
        ctx->names = &names;
        trace(ctx);
        close_dirs(&names);
        ctx->names = nullptr;
        pthread_mutex_unlock(&strace_lock);
    }
    free(ctx->buf);
    ctx->buf = nullptr;
    ctx->bufsize = 0;
}
