#include "trace/arch.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/capture.h"
#include "tests/unit/trace/tracees.h"
#include "trace/ptrace_ops.h"

namespace {

constexpr int64_t o32_getppid = 4064;
constexpr int64_t o32_getpid = 4020;
constexpr int64_t o32_exit_group = 4246;

// A child that asks to be traced and does `work` when it is.
template <typename Work>
struct asking_child : tracee {
    explicit asking_child(Work work)
        : tracee([work] {
              ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
              raise(SIGSTOP);
              return work();
          }) {
        EXPECT_TRUE(WIFSTOPPED(wait_status(pid())));
        EXPECT_EQ(trace_setoptions(pid(), PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL), 0);
    }
};

// Lets it go on up to the entry of the system call with O32's `number`; false when that does not come.
bool run_to_entry(pid_t pid, int64_t number, arch_regs* regs) {
    for (int stops = 0; stops < 1000; stops++) {
        if (trace_syscall(pid, 0) != 0 || !WIFSTOPPED(wait_status(pid)) || !arch_read_regs(pid, regs)) {
            return false;
        }
        if (regs->number == number) {
            return true;
        }
    }
    return false;
}

syscall_record record_at(const arch_regs& regs, int64_t number) {
    return {regs.pc, regs.ra, number, {101, 102, 103, 104, 105, 106}, number, 1};
}

std::string written_back(pid_t pid, syscall_record* call) {
    return capture_stdout([pid, call] { arch_writeback_sc(pid, call); });
}

}  // namespace

TEST(arch_writeback_sc, puts_number_and_arguments_of_the_record_into_the_process) {
    asking_child child([] { return syscall(SYS_getppid) == getpid() ? 0 : 1; });
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_getppid, &regs));
    syscall_record call = record_at(regs, o32_getpid);
    EXPECT_EQ(written_back(child.pid(), &call), "arch_writeback_sc");
    EXPECT_EQ(call.write_back, 0);
    arch_regs now = {};
    ASSERT_TRUE(arch_read_regs(child.pid(), &now));
    arch_read_stack_args(&now, tracee_memory_of(child.pid()));
    EXPECT_EQ(now.number, o32_getpid);
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(now.arg[i], 101 + i);
    }
    EXPECT_EQ(now.sp, regs.sp);
    ASSERT_EQ(trace_cont(child.pid(), 0), 0);
    EXPECT_TRUE(exited_with(child.end(), 0));
}

TEST(arch_writeback_sc, call_is_made_with_the_arguments_of_the_record) {
    asking_child child([] { return static_cast<int>(syscall(SYS_exit_group, 1)); });
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_exit_group, &regs));
    syscall_record call = record_at(regs, o32_exit_group);
    written_back(child.pid(), &call);
    ASSERT_EQ(trace_cont(child.pid(), 0), 0);
    EXPECT_TRUE(exited_with(child.end(), 101));
}

TEST(arch_target_signal, names_this_machine_s_signals_as_the_target_numbers_them) {
    EXPECT_EQ(arch_target_signal(SIGHUP), 1u);
    EXPECT_EQ(arch_target_signal(SIGKILL), 9u);
    EXPECT_EQ(arch_target_signal(SIGBUS), 10u);
    EXPECT_EQ(arch_target_signal(SIGUSR1), 16u);
    EXPECT_EQ(arch_target_signal(SIGCHLD), 18u);
    EXPECT_EQ(arch_target_signal(SIGSTOP), 23u);
    EXPECT_EQ(arch_target_signal(SIGXFSZ), 31u);
}
