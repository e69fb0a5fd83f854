#include "trace/strace_event.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <unistd.h>

#include "tests/unit/trace/one_process_trace.h"

namespace {

constexpr int stop_by(int sig, int ptrace_event = 0) {
    return ptrace_event << 16 | sig << 8 | 0x7f;
}

struct event_row {
    int status;
    strace_event_kind kind;
    int signal;
};

}  // namespace

TEST(strace_take_event, tells_stops_apart) {
    using enum strace_event_kind;
    constexpr event_row rows[] = {
        {stop_by(SIGTRAP | 0x80), system_call, 0},
        {stop_by(SIGTRAP, PTRACE_EVENT_EXIT), exit_stop, 0},
        {stop_by(SIGTRAP, PTRACE_EVENT_EXEC), exec_stop, 0},
        {stop_by(SIGTRAP), trap, SIGTRAP},
        {stop_by(SIGUSR1), other_signal, SIGUSR1},
        {stop_by(SIGSTOP), other_signal, SIGSTOP},
        {stop_by(SIGCONT), other_signal, SIGCONT},
    };
    for (const event_row& row : rows) {
        pid_t pid = getpid();
        one_process_trace trace(&pid, "me");
        const strace_event event = strace_take_event(&trace.process(), row.status);
        EXPECT_EQ(event.kind, row.kind) << std::hex << row.status;
        EXPECT_EQ(event.signal, row.signal) << std::hex << row.status;
        EXPECT_TRUE(trace.process().stopped);
        EXPECT_EQ(pid, getpid());
    }
}

TEST(strace_take_event, drops_a_process_that_has_ended) {
    using enum strace_event_kind;
    for (const event_row& row : {event_row{3 << 8, exited, 0}, event_row{SIGKILL, killed, 0}}) {
        pid_t pid = getpid();
        one_process_trace trace(&pid, "me");
        EXPECT_EQ(strace_take_event(&trace.process(), row.status).kind, row.kind);
        EXPECT_FALSE(trace.process().stopped);
        EXPECT_EQ(pid, -1);
    }
}

TEST(strace_take_event, only_one_stop_signal_is_the_trace_s_own) {
    pid_t pid = getpid();
    one_process_trace trace(&pid, "me");
    trace.process().stop_due = true;
    EXPECT_EQ(strace_take_event(&trace.process(), stop_by(SIGUSR1)).kind, strace_event_kind::other_signal);
    EXPECT_TRUE(trace.process().stop_due);
    EXPECT_EQ(strace_take_event(&trace.process(), stop_by(SIGSTOP)).kind, strace_event_kind::own_stop);
    EXPECT_FALSE(trace.process().stop_due);
    EXPECT_EQ(strace_take_event(&trace.process(), stop_by(SIGSTOP)).kind, strace_event_kind::other_signal);
}

// Every ptrace request fails with ESRCH here, so each stop looks like the delivery of a signal.
TEST(strace_take_event, first_stop_may_come_before_the_stop_signal_of_the_attach) {
    for (int sig : {SIGSTOP, SIGUSR1}) {
        pid_t pid = getpid();
        one_process_trace trace(&pid, "me");
        trace.process().joining = true;
        trace.process().stop_due = true;
        const strace_event event = strace_take_event(&trace.process(), stop_by(sig));
        EXPECT_EQ(event.kind, strace_event_kind::first_stop);
        EXPECT_EQ(event.signal, sig == SIGSTOP ? 0 : sig);
        EXPECT_EQ(trace.process().stop_due, sig != SIGSTOP);
        EXPECT_FALSE(trace.process().joining);
    }
}

TEST(strace_take_event, late_first_stop_by_the_attach_leaves_no_signal) {
    pid_t pid = getpid();
    one_process_trace trace(&pid, "me");
    trace.process().joining = true;
    trace.process().sigcont_due = true;
    strace_keep_event(&trace.process(), stop_by(SIGSTOP));
    EXPECT_TRUE(trace.process().stopped);
    EXPECT_EQ(trace.process().undelivered, 0);
}

TEST(strace_keep_event, keeps_the_signal_of_a_stop) {
    pid_t pid = getpid();
    one_process_trace trace(&pid, "me");
    strace_keep_event(&trace.process(), stop_by(SIGTERM));
    EXPECT_EQ(trace.process().undelivered, SIGTERM);
    strace_keep_event(&trace.process(), stop_by(SIGTRAP, PTRACE_EVENT_EXIT));
    EXPECT_EQ(trace.process().undelivered, 0);
    strace_keep_event(&trace.process(), SIGTERM);
    EXPECT_EQ(pid, -1);
}
