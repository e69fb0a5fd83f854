// A child that stands at the entry or exit of a system call.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include "tests/unit/trace/tracees.h"
#include "trace/arch.h"
#include "trace/ptrace_ops.h"

constexpr int64_t o32_getpid = 4020;
constexpr int64_t o32_getppid = 4064;
constexpr int64_t o32_exit_group = 4246;

// A child that calls PTRACE_TRACEME and stops with SIGSTOP; `work` comes next.
template <typename Work>
struct self_traced_child : tracee {
    explicit self_traced_child(Work work)
        : tracee([work] {
              ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
              raise(SIGSTOP);
              return work();
          }) {
        EXPECT_TRUE(WIFSTOPPED(wait_status(pid())));
        EXPECT_EQ(trace_setoptions(pid(), PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL), 0);
    }
};

// Resumes the child up to its next stop at a system call, and reads its registers. False on failure.
inline bool run_to_stop(pid_t pid, arch_regs* regs) {
    return trace_syscall(pid, 0) == 0 && WIFSTOPPED(wait_status(pid)) && arch_read_regs(pid, regs);
}

// Resumes the child up to the entry of the call with this O32 number. False if it does not get there.
inline bool run_to_entry(pid_t pid, int64_t number, arch_regs* regs) {
    for (int stops = 0; stops < 1000; stops++) {
        if (!run_to_stop(pid, regs)) {
            return false;
        }
        if (regs->number == number) {
            return true;
        }
    }
    return false;
}
