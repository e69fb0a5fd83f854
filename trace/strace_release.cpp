// Letting the processes of a trace go.
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "common/deadline.h"
#include "proc/proc_list.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_process.h"

namespace {

constexpr useconds_t shortest_pause_us = 10;
constexpr useconds_t longest_pause_us = 5000;
constexpr int patience_ms = 3000;

void* as_data(int sig) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(sig));  // NOLINT(performance-no-int-to-ptr)
}

// Detaches a process that is stopped; false when it turned out not to be.
bool detach(pid_t pid, int sig) {
    return ptrace(PTRACE_DETACH, pid, nullptr, as_data(sig)) == 0;
}

// Deals with what was waited for while a process was on its way to its stop. Returns whether it is free.
bool settle(pid_t pid, int status, bool joining) {
    if (!WIFSTOPPED(status)) {
        return true;
    }
    int sig = WSTOPSIG(status);
    if (sig == SIGSTOP) {
        return detach(pid, 0);
    }
    if (status >> 16 == PTRACE_EVENT_EXIT) {
        return detach(pid, 0);  // its end is its parent's to see
    }
    if (sig == SIGCONT) {
        (void)trace_stop_thread(pid);  // it has discarded the stop signal that is waited for
    }
    // The stop that was asked for is still to come and would remain when the process were let go here.
    bool stop_due;
    if (joining) {
        sig = trace_first_signal(pid, status, &stop_due);
    } else if (sig == (SIGTRAP | 0x80) || status >> 16 != 0) {
        sig = 0;
    }
    return ptrace(PTRACE_CONT, pid, nullptr, as_data(sig)) < 0 && errno != ESRCH;
}

// Deals with one wait status; returns how many processes it set free, 0 or 1.
int settle_one(strace_ctx* ctx, pid_t pid, int status) {
    int index = strace_index(ctx, pid);
    if (index < 0) {
        return 0;
    }
    strace_process& process = ctx->names->processes.get()[index];
    if (!process.awaited || !settle(pid, status, process.joining)) {
        return 0;
    }
    process.awaited = false;
    if (!WIFSTOPPED(status)) {
        ctx->pids[index] = -1;
    }
    return 1;
}

// Gives up who can't be waited for; returns how many. The first thread of a process that ended before the
// others never stops, and its end is not seen before theirs. One that sleeps in the kernel may do so for
// ever, and the stop of another may have been taken by somebody else's wait: when patience is at its end, the
// stop signal is taken back, and who can't be let go as it stands is set free by the end of this thread.
int give_up(strace_ctx* ctx, bool is_late) {
    int given_up = 0;
    for (int i = 0; i < ctx->names->count; i++) {
        strace_process& process = ctx->names->processes.get()[i];
        char state = process.awaited ? proc_state(ctx->pids[i]) : '\0';
        const bool is_unreachable = is_late && (state == 'D' || state == 't');
        if (is_unreachable) {
            (void)kill(ctx->pids[i], SIGCONT);
            (void)detach(ctx->pids[i], 0);
        }
        if (state == 'Z' || is_unreachable) {
            process.awaited = false;
            given_up++;
        }
    }
    return given_up;
}

// Waits until the `pending` processes that were asked to stop have been let go.
void collect(strace_ctx* ctx, int pending) {
    useconds_t pause = shortest_pause_us;
    const deadline patience(patience_ms);
    while (pending > 0) {
        int status;
        pid_t pid = waitpid(-1, &status, WNOHANG | trace_wait_flags);
        if (pid > 0) {
            pending -= settle_one(ctx, pid, status);
            pause = shortest_pause_us;
        } else if (pid < 0 && errno != EINTR) {
            return;
        } else if (pause < longest_pause_us) {
            usleep(pause);
            pause *= 2;
        } else {
            pending -= give_up(ctx, patience.left_ms() == 0);
            usleep(pause);
        }
    }
}

}  // namespace

void strace_release_all(strace_ctx* ctx) {
    int pending = 0;
    for (int i = 0; i < ctx->names->count; i++) {
        strace_process& process = ctx->names->processes.get()[i];
        pid_t pid = ctx->pids[i];
        if (pid == -1 || (process.stopped && detach(pid, process.undelivered))) {
            continue;
        }
        // A second stop signal behind the attach's own would be left over. A process that has ended leaves
        // its end to be waited for, if it is still ours at all.
        if (!trace_is_ours(pid)) {
            ctx->pids[i] = -1;
            continue;
        }
        process.awaited = process.joining || process.attach_stop_due || trace_stop_thread(pid) == 0;
        pending += process.awaited;
    }
    collect(ctx, pending);
    if (ctx->attached) {
        // The end of a child is the caller's to see; a signal for the caller ends the wait.
        for (int i = 0; i < ctx->names->count; i++) {
            int status;
            if (ctx->pids[i] != -1 && waitpid(ctx->pids[i], &status, trace_wait_flags) > 0) {
                ctx->pids[i] = -1;
            }
        }
    }
}
