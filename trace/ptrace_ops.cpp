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

#include "common/ascii.h"
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
constexpr useconds_t longest_attach_pause_us = 1000;
constexpr useconds_t longest_detach_pause_us = 10000;
constexpr int zombie_checks = 50;  // half a second at the longest pause
constexpr size_t mask_digits = 16;

// The text after "KEY:" in a status file, without leading blanks; "" if the key is missing.
const char* field_of(const char* text, const char* key) {
    const char* at = strstr(text, key);
    if (!at) {
        return "";
    }
    at += strlen(key);
    while (*at == ' ' || *at == '\t') {
        at++;
    }
    return at;
}

// True if this mask of pending signals in a status file has SIGSTOP. A mask has 64 bits, on MIPS 128.
bool has_stop(const char* text, const char* key) {
    const char* mask = field_of(text, key);
    size_t digits = 0;
    while (ascii_hex_value(mask[digits]) >= 0) {
        digits++;
    }
    mask += digits > mask_digits ? digits - mask_digits : 0;
    return (strtoull(mask, nullptr, 16) >> (SIGSTOP - 1) & 1) != 0;
}

pid_t number_of(const char* text, const char* key) {
    return static_cast<pid_t>(strtol(field_of(text, key), nullptr, 10));
}

int resume(__ptrace_request request, const char* name, pid_t pid, int sig) {
    int result = -1;
    for (int attempt = 0; attempt < trace_resume_attempts && result < 0; attempt++) {
        result = static_cast<int>(ptrace(request, pid, nullptr, ptrace_data(sig)));
        if (result < 0) {
            printf("%s failed %s\n", name, strerror(errno));
        }
    }
    return result;
}

// A detach that waits for its process.
struct detach {
    pid_t pid;
    bool done;         // PTRACE_DETACH succeeded
    bool stop_unsent;  // a stop signal is to be sent first
};

// Waits as waitpid does for the next stop of the process or its end, after sending the stop signal if that is
// due. Returns 0 to give up: a signal for the caller has ended the wait for a detached child, or the
// process's first thread has ended before the others, which the calling thread may have to detach next.
pid_t wait_for_event(detach* d, int* status) {
    int seen_as_zombie = 0;
    for (useconds_t pause = attach_pause_us;; pause = std::min(2 * pause, longest_detach_pause_us)) {
        if (d->stop_unsent && trace_is_ours(d->pid)) {
            d->stop_unsent = trace_stop_thread(d->pid) != 0;
        }
        pid_t got = waitpid(d->pid, status, WNOHANG | trace_wait_flags);
        if (got != 0) {
            return got;
        }
        // The first thread may be a zombie for a moment only: threads that end together do so one by one.
        seen_as_zombie += proc_state(d->pid) == 'Z';
        if ((usleep(pause) != 0 && d->done) || seen_as_zombie == zombie_checks) {
            return 0;
        }
    }
}

// trace_detach_sig, but sends a running process a stop signal only with `send_stop`: the one that
// PTRACE_ATTACH sent may still be pending, and after the detach a second one would stop the process for good.
void detach_and_wait(pid_t pid, int sig, bool send_stop) {
    const bool done = trace_detach_stopped(pid, sig);
    detach d = {pid, done, !done && send_stop};
    int status = 0;
    for (;;) {
        pid_t got = wait_for_event(&d, &status);
        if (got == 0 || (got < 0 && errno != EINVAL) || !WIFSTOPPED(status)) {
            return;
        }
        if (WSTOPSIG(status) == SIGSTOP) {
            (void)trace_detach_stopped(pid, sig);
            return;
        }
        if (WSTOPSIG(status) == SIGCONT) {
            (void)trace_stop_thread(pid);  // the SIGCONT has discarded the pending stop signal
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
            detach_and_wait(pid, 0, false);
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
    for (useconds_t pause = attach_pause_us;; pause = std::min(2 * pause, longest_attach_pause_us)) {
        pid_t got = waitpid(pid, status, WUNTRACED | WNOHANG | trace_wait_flags);
        if (got > 0) {
            return got;
        }
        if (got < 0 && (errno != ECHILD || ++failures == attach_waits)) {
            detach_and_wait(pid, 0, false);
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
    // With kill(2), any thread of the process may take the signal. One that is not traced would stop the
    // whole process for good.
    return static_cast<int>(syscall(SYS_tkill, pid, SIGSTOP));
}

int trace_first_signal(pid_t pid, int status, bool* stop_due) {
    const int sig = WSTOPSIG(status);
    siginfo_t info = {};
    // Only a stop of the whole process (a group stop) has no siginfo; PTRACE_GETSIGINFO fails with EINVAL.
    const bool delivered = ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) == 0 || errno != EINVAL;
    *stop_due = !delivered || sig != SIGSTOP;
    // An exec that was already running at the attach ends with a SIGTRAP for the tracer alone.
    const bool exec_trap = delivered && sig == SIGTRAP && info.si_code == SI_USER;
    return delivered && sig != SIGSTOP && !exec_trap ? sig : 0;
}

void trace_take_back_stop(pid_t pid) {
    // Otherwise the SIGCONT could resume the process from a stop that someone else has ordered.
    if (trace_look(pid).stop_pending) {
        (void)syscall(SYS_tkill, pid, SIGCONT);
    }
}

bool trace_is_own_sigcont(pid_t pid, int status) {
    siginfo_t info = {};
    return status >> 16 == 0 && WSTOPSIG(status) == SIGCONT &&
           ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) == 0 && info.si_code == SI_TKILL &&
           (info.si_pid == getpid() || info.si_pid == 0);  // 0: sent from another pid namespace
}

bool trace_detach_stopped(pid_t pid, int sig) {
    return ptrace(PTRACE_DETACH, pid, nullptr, ptrace_data(sig)) == 0;
}

void trace_detach_sig(pid_t pid, int sig) {
    const ending_held held;
    detach_and_wait(pid, sig, true);
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
