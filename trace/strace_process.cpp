#include "trace/strace_process.h"

#include <sys/ptrace.h>
#include <sys/wait.h>

#include <utility>

#include "trace/ptrace_ops.h"

strace_process* strace_find(const strace_ctx* ctx, pid_t pid) {
    int index = strace_index(ctx, pid);
    return ctx->names->processes.get() + (index < 0 ? ctx->names->count : index);
}

int strace_index(const strace_ctx* ctx, pid_t pid) {
    for (int i = 0; i < ctx->names->count; i++) {
        if (ctx->pids[i] == pid) {
            return i;
        }
    }
    return -1;
}

int strace_index_of_event(strace_ctx* ctx, pid_t pid, int status) {
    const int holder = strace_index(ctx, pid);
    unsigned long former = 0;
    if (!WIFSTOPPED(status) || status >> 16 != PTRACE_EVENT_EXEC ||
        ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &former) != 0) {
        return holder;
    }
    const int index = strace_index(ctx, static_cast<pid_t>(former));
    if (index < 0 || index == holder) {
        return holder;
    }
    if (holder >= 0) {
        ctx->pids[holder] = -1;
    }
    ctx->pids[index] = pid;
    unique_fd closed(std::exchange(strace_find(ctx, pid)->fd_dir, -1));  // of the number that is gone
    return index;
}

int strace_signal_of_stop(strace_process* process, pid_t pid, int status) {
    if (WSTOPSIG(status) == strace_syscall_stop || status >> 16 != 0) {
        return 0;
    }
    if (process->sigcont_due && trace_is_own_sigcont(pid, status)) {
        process->sigcont_due = false;
        return 0;
    }
    return WSTOPSIG(status);
}
