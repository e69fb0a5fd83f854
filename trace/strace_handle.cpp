#include "trace/strace_handle.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "common/proc_path.h"
#include "common/signal_map.h"
#include "common/small_file.h"
#include "proc/proc_list.h"
#include "trace/arch_decode.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_event.h"
#include "trace/strace_release.h"
#include "trace/strace_report.h"

namespace {

// In place of a signal to resume a process with.
constexpr int not_to_be_resumed = -1;

void read_name(pid_t pid, char (&name)[32]) {
    (void)small_file_text(proc_path(pid, "cmdline").text, name, sizeof name);
    if (const char* slash = strrchr(name, '/')) {
        memmove(name, slash + 1, strlen(slash + 1) + 1);
    }
}

bool set_options(const strace_ctx& ctx, pid_t pid) {
    // Without the exec event, an exec would send the process a SIGTRAP, which would kill it.
    long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC;
    if (ctx.flags & strace_exits) {
        options |= PTRACE_O_TRACEEXIT;
    }
    return trace_setoptions(pid, options) == 0;
}

// Returns false after dropping a process that could not be resumed.
bool resume(strace_state* state, strace_process* process, int sig) {
    // A reader may be slower than the trace. While the process is stopped, waiting for it does not count as
    // the duration of the next call. Texts of several processes are written together, after they were
    // resumed.
    if (state->ctx->timed && state->count == 1) {
        strace_write_pending(state->ctx);
        clock_gettime(CLOCK_MONOTONIC, &process->entered_at);
    }
    const pid_t pid = process->pid();
    process->stopped = false;
    if (trace_syscall(pid, sig) == 0) {
        return true;
    }
    printf("WARNING: ptrace SYSCALL failed! %d\n", pid);
    trace_detach(pid);
    process->drop();
    return false;
}

void report_signal(strace_ctx* ctx, const strace_process& process, int sig) {
    if (sig != 0 && (ctx->flags & strace_signals)) {
        strace_printf(ctx, "\n[%d %s] ---  SIGNAL %d %s ---\n\n", process.pid(), process.name, sig,
                      signal_map_sig2name(arch_target_signal(sig)));
    }
}

// A SIGCONT from elsewhere has discarded the stop signal of an attach that was still pending.
void renew_stop(const strace_process& process, int sig) {
    if (process.stop_due && sig == SIGCONT) {
        (void)trace_stop_thread(process.pid());
    }
}

void write_line(strace_ctx* ctx, int length) {
    if (length > 0 && length < ctx->bufsize) {
        strace_write_later(ctx, ctx->buf, length);
    }
}

// Writes the line of a return. In a timed trace, the call's duration replaces the newline at its end.
void write_return(strace_ctx* ctx, const strace_process& process, int length) {
    if (!ctx->timed || length >= ctx->bufsize) {
        return write_line(ctx, length);
    }
    write_line(ctx, length - 1);
    if (length > 0) {
        const strace_time_text end = strace_duration(process.entered_at, ctx->names->event.monotonic);
        strace_write_later(ctx, end.text, end.length);
    }
}

void handle_return(strace_ctx* ctx, strace_process* process) {
    int length = arch_dec_syscall_ret(ctx, process->pid(), process, ctx->buf, ctx->bufsize,
                                      &process->entry_regs, &process->exit_regs);
    if (length < 0 || length >= ctx->bufsize) {
        fprintf(stderr, "%s: Unexpected length: %d\n", "strace_dec_syscall", length);
    }
    process->in_syscall = process->in_syscall && length == 0;
    write_return(ctx, *process, length);
}

void handle_system_call(strace_ctx* ctx, strace_process* process) {
    if (!(ctx->flags & strace_calls)) {
        return;
    }
    if (process->in_syscall) {
        return handle_return(ctx, process);
    }
    int length = arch_dec_syscall(ctx, process->pid(), process, ctx->buf, ctx->bufsize, &process->entry_regs);
    if (length == -1) {
        return handle_return(ctx, process);
    }
    process->in_syscall = true;
    process->entered_at = ctx->names->event.monotonic;
    write_line(ctx, length);
}

// Counts an exit.
void count_exit(strace_state* state) {
    state->over = --state->live <= 0;
}

// Detaches a child of this program at its exit. If it were still traced when it ends, our waitpid(-1) would
// take the status that the part of this program that started it waits for.
void leave_to_parent(strace_state* state, strace_process* process) {
    (void)trace_detach_stopped(process->pid(), 0);
    process->drop();
    count_exit(state);
}

void report_exit(strace_ctx* ctx, const strace_process& process) {
    strace_exit(ctx, process.pid(), strace_exit_stop, 0, nullptr);
}

// Returns the signal to resume the process with, or not_to_be_resumed.
int act_on(strace_state* state, strace_process* process, strace_event event) {
    using enum strace_event_kind;
    switch (event.kind) {
        case exited:
            count_exit(state);
            return not_to_be_resumed;
        case killed:
            state->live--;
            return not_to_be_resumed;
        case first_stop:
            state->live -= !strace_start(state, process, event.signal);
            return not_to_be_resumed;
        case system_call:
            handle_system_call(state->ctx, process);
            return 0;
        case exit_stop:
            report_exit(state->ctx, *process);
            if (process->own_child) {
                leave_to_parent(state, process);
                return not_to_be_resumed;
            }
            return SIGTRAP;
        case exec_stop:
        case trap:
            report_exit(state->ctx, *process);  // deliberately taken for an exit
            return SIGTRAP;
        case own_stop:
        case own_sigcont:
            return 0;
        case other_signal:
            report_signal(state->ctx, *process, event.signal);
            renew_stop(*process, event.signal);
            return event.signal;
    }
    return not_to_be_resumed;
}

}  // namespace

bool strace_start(strace_state* state, strace_process* process, int sig) {
    strace_ctx* ctx = state->ctx;
    const pid_t pid = process->pid();
    if (!set_options(*ctx, pid)) {
        process->stopped = true;
        process->undelivered = sig;
        (void)strace_release(state, process);
        process->drop();
        return false;
    }
    read_name(pid, process->name);
    process->tgid = trace_look(pid).tgid;
    process->own_child = !ctx->attached && proc_ppid(pid) == getpid();
    report_signal(ctx, *process, sig);
    renew_stop(*process, sig);
    return resume(state, process, sig);
}

void strace_handle_event(strace_state* state, strace_process* process, int status) {
    for (;;) {
        const int sig = act_on(state, process, strace_take_event(process, status));
        if (sig == not_to_be_resumed) {
            return;
        }
        // If the process was killed in this stop, it has gone on to its exit stop. PTRACE_SYSCALL would
        // resume it from there, and its exit would not be reported.
        if (!(state->ctx->flags & strace_exits) ||
            waitpid(process->pid(), &status, WNOHANG | trace_wait_flags) <= 0) {
            (void)resume(state, process, sig);
            return;
        }
        strace_take_time(state);
    }
}
