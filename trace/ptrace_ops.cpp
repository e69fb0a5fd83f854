#include "trace/ptrace_ops.h"

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/deadline.h"
#include "common/ending.h"
#include "common/proc_path.h"
#include "common/small_file.h"
#include "proc/proc_list.h"
#include "trace/ptrace_data.h"

const int trace_wait_flags = __WALL | __WNOTHREAD;

namespace {

constexpr int attach_waits = 5;
constexpr useconds_t attach_pause_us = 10;
constexpr useconds_t longest_pause_us = 1000;
constexpr useconds_t longest_end_pause_us = 10000;
constexpr int end_looks = 50;  // half a second at the longest pause
constexpr int resume_attempts = 4;
constexpr size_t mask_digits = 16;

// The text behind "KEY:" in a status file, at its first character that is no blank; "" when there is none.
const char* field_of(const char* text, const char* key) {
    const char* line = strstr(text, key);
    return line ? line + strlen(key) + strspn(line + strlen(key), " \t") : "";
}

// Whether one of a status file's masks of pending signals has SIGSTOP. A mask is 64 or, on MIPS, 128 bits
// wide.
bool has_stop(const char* text, const char* key) {
    const char* mask = field_of(text, key);
    const size_t digits = strspn(mask, "0123456789abcdef");
    mask += digits > mask_digits ? digits - mask_digits : 0;
    return (strtoull(mask, nullptr, 16) >> (SIGSTOP - 1) & 1) != 0;
}

pid_t number_of(const char* text, const char* key) {
    return static_cast<pid_t>(strtol(field_of(text, key), nullptr, 10));
}

int resume(__ptrace_request request, const char* name, pid_t pid, int sig) {
    int result = -1;
    for (int attempt = 0; attempt < resume_attempts && result < 0; attempt++) {
        result = static_cast<int>(ptrace(request, pid, nullptr, ptrace_data(sig)));
        if (result < 0) {
            printf("%s failed %s\n", name, strerror(errno));
        }
    }
    return result;
}

// Waits for a stop or the end of a process that is being let go, as waitpid does, after a stop signal when
// one is due. Returns 0 when neither is to be waited for: its first thread has ended before the others, which
// may be this thread's to let go, or a signal for the caller has ended the wait for its end.
pid_t await_event(pid_t pid, int* status, bool detached, bool* stop_due) {
    int looks_at_its_end = 0;
    for (useconds_t pause = attach_pause_us;; pause = std::min(2 * pause, longest_end_pause_us)) {
        if (*stop_due && trace_is_ours(pid)) {
            *stop_due = trace_stop_thread(pid) != 0;
        }
        pid_t got = waitpid(pid, status, WNOHANG | trace_wait_flags);
        if (got != 0) {
            return got;
        }
        // Threads that end together do so one after the other.
        looks_at_its_end += proc_state(pid) == 'Z';
        if ((usleep(pause) != 0 && detached) || looks_at_its_end == end_looks) {
            return 0;
        }
    }
}

// trace_detach_sig, with or without a stop signal for a process that runs: one that is being attached to has
// its own on its way, and a second one would stop it for good.
void let_go(pid_t pid, int sig, bool send_stop) {
    const bool detached = trace_detach_stopped(pid, sig);
    bool stop_due = !detached && send_stop;
    int status = 0;
    for (;;) {
        pid_t got = await_event(pid, &status, detached, &stop_due);
        if (got == 0 || (got < 0 && errno != EINVAL)) {
            return;
        }
        if (!WIFSTOPPED(status)) {
            return;
        }
        if (WSTOPSIG(status) == SIGSTOP) {
            (void)trace_detach_stopped(pid, sig);
            return;
        }
        if (WSTOPSIG(status) == SIGCONT) {
            (void)trace_stop_thread(pid);  // it has discarded the stop signal that is waited for
        }
        if (sig != SIGSTOP && ptrace(PTRACE_CONT, pid, nullptr, nullptr) < 0) {
            return;
        }
    }
}

}  // namespace

pid_t trace_attach(pid_t pid) {
    const ending_held held;
    if (ptrace(PTRACE_ATTACH, pid, nullptr, nullptr) < 0) {
        return -1;
    }
    for (int tries = 1;; tries++) {
        int status;
        pid_t got = waitpid(pid, &status, WUNTRACED | trace_wait_flags);
        if (got >= 0) {
            return got;
        }
        if (errno != ECHILD || tries == attach_waits) {
            let_go(pid, 0, false);
            return -1;
        }
        usleep(attach_pause_us);
    }
}

pid_t trace_attach_within(pid_t pid, int patience_ms, int* status) {
    const ending_held held;
    if (ptrace(PTRACE_ATTACH, pid, nullptr, nullptr) < 0) {
        return -1;
    }
    int failures = 0;
    const deadline patience(patience_ms);
    for (useconds_t pause = attach_pause_us;; pause = std::min(2 * pause, longest_pause_us)) {
        pid_t got = waitpid(pid, status, WUNTRACED | WNOHANG | trace_wait_flags);
        if (got > 0) {
            return got;
        }
        if (got < 0 && (errno != ECHILD || ++failures == attach_waits)) {
            let_go(pid, 0, false);
            return -1;
        }
        if (got == 0 && patience.is_over()) {
            trace_take_back_stop(pid);
            return 0;
        }
        usleep(pause);
    }
}

bool trace_is_ours(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info,
                  WEXITED | WSTOPPED | WNOHANG | WNOWAIT | trace_wait_flags) == 0 &&
           trace_look(pid).tracer == gettid();
}

trace_view trace_look(pid_t pid) {
    char text[2048];
    (void)small_file_text(proc_path(pid, "status").text, text, sizeof text);
    return {.state = field_of(text, "\nState:")[0],
            .tgid = number_of(text, "\nTgid:"),
            .tracer = number_of(text, "\nTracerPid:"),
            .stop_pending = has_stop(text, "\nSigPnd:") || has_stop(text, "\nShdPnd:")};
}

int trace_stop_thread(pid_t pid) {
    // kill(2) may have any thread of the process take the signal. One that is not traced would stop them all,
    // and they would stay so.
    return static_cast<int>(syscall(SYS_tkill, pid, SIGSTOP));
}

int trace_first_signal(pid_t pid, int status, bool* stop_due) {
    const int sig = WSTOPSIG(status);
    siginfo_t info = {};
    // Only a stop of the whole process has no information: the kernel says so with EINVAL.
    const bool delivered = ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) == 0 || errno != EINVAL;
    *stop_due = !delivered || sig != SIGSTOP;
    // An exec that was under way when the attach came ends with a trap that is for the tracer alone.
    const bool exec_trap = delivered && sig == SIGTRAP && info.si_code == SI_USER;
    return delivered && sig != SIGSTOP && !exec_trap ? sig : 0;
}

void trace_take_back_stop(pid_t pid) {
    // Not when there is nothing to take back: it could go on from a stop that somebody else wants.
    if (trace_look(pid).stop_pending) {
        (void)syscall(SYS_tkill, pid, SIGCONT);
    }
}

bool trace_is_own_sigcont(pid_t pid, int status) {
    siginfo_t info = {};
    return status >> 16 == 0 && WSTOPSIG(status) == SIGCONT &&
           ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) == 0 && info.si_code == SI_TKILL &&
           (info.si_pid == getpid() || info.si_pid == 0);  // 0: in a namespace that does not show us
}

bool trace_detach_stopped(pid_t pid, int sig) {
    return ptrace(PTRACE_DETACH, pid, nullptr, ptrace_data(sig)) == 0;
}

void trace_detach_sig(pid_t pid, int sig) {
    const ending_held held;
    let_go(pid, sig, true);
}

void trace_detach(pid_t pid) {
    trace_detach_sig(pid, 0);
}

int trace_setoptions(pid_t pid, long options) {
    if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, ptrace_data(options)) < 0) {
        printf("PTRACE_CONT failed %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

int trace_cont(pid_t pid, int sig) {
    return resume(PTRACE_CONT, "PTRACE_CONT", pid, sig);
}

int trace_syscall(pid_t pid, int sig) {
    return resume(PTRACE_SYSCALL, "SYSCALL", pid, sig);
}
