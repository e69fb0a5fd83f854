#include "trace/strace_event.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <utility>

#include "trace/ptrace_ops.h"

namespace {

using enum strace_event_kind;

constexpr int system_call_signal = SIGTRAP | 0x80;  // PTRACE_O_TRACESYSGOOD

bool is_own_sigcont(strace_process* process, int status) {
    if (!process->sigcont_due || !trace_is_own_sigcont(process->pid(), status)) {
        return false;
    }
    process->sigcont_due = false;
    return true;
}

// An attach sends a stop signal, but another signal or a stop that the process was already in may come first.
// The stop signal is then still due, unless it has been replaced by a SIGCONT.
strace_event first_stop_event(strace_process* process, int status) {
    bool stop_due = false;
    const int sig = trace_first_signal(process->pid(), status, &stop_due);
    process->joining = false;
    process->stop_due = process->stop_due && stop_due;
    return {first_stop, is_own_sigcont(process, status) ? 0 : sig};
}

}  // namespace

strace_event strace_take_event(strace_process* process, int status) {
    if (!WIFSTOPPED(status)) {
        process->drop();
        return {WIFEXITED(status) ? exited : killed};
    }
    process->stopped = true;
    if (process->joining) {
        return first_stop_event(process, status);
    }
    const int sig = WSTOPSIG(status);
    const int ptrace_event = status >> 16;
    if (sig == system_call_signal) {
        return {system_call};
    }
    if (ptrace_event != 0) {
        return {ptrace_event == PTRACE_EVENT_EXIT ? exit_stop : exec_stop};
    }
    if (sig == SIGTRAP) {
        return {trap, sig};
    }
    if (sig == SIGSTOP && std::exchange(process->stop_due, false)) {
        return {own_stop};
    }
    if (is_own_sigcont(process, status)) {
        return {own_sigcont};
    }
    return {other_signal, sig};
}

void strace_keep_event(strace_process* process, int status) {
    process->undelivered = strace_take_event(process, status).signal;
}
