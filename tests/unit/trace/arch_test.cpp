#include "trace/arch.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/capture.h"
#include "tests/unit/trace/call_stops.h"
#include "tests/unit/trace/fake_memory.h"

namespace {

#if defined(__mips__)
constexpr bool has_stack_args = true;  // arguments 5 and 6 are on the stack
#else
constexpr bool has_stack_args = false;
#endif

int ask_for_the_parent() {
    return syscall(SYS_getppid, 1, 2, 3, 4, 5, 6) == getpid() ? 0 : 1;
}

// The name of the function that a forked child executes at `address`.
std::string function_at(int64_t address) {
    Dl_info info = {};
    bool found = dladdr(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), &info) != 0;
    return found && info.dli_sname ? info.dli_sname : "";
}

syscall_record record_at(const arch_regs& regs, int64_t number) {
    return {regs.pc, regs.ra, number, {101, 102, 103, 104, 105, 106}, number, 1};
}

std::string write_back(pid_t pid, syscall_record* call) {
    return capture_stdout([pid, call] { arch_writeback_sc(pid, call); });
}

}  // namespace

TEST(arch_read_regs, entry_has_number_arguments_and_address_of_the_call) {
    self_traced_child child(ask_for_the_parent);
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_getppid, &regs));
    arch_read_stack_args(&regs, tracee_memory_of(child.pid()));
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(regs.arg[i], i + 1);
    }
    EXPECT_FALSE(regs.unnumbered);
    if (has_stack_args) {
        EXPECT_EQ(function_at(regs.pc), "__mips_syscall6");  // of the C library
        EXPECT_EQ(function_at(regs.ra), "syscall");
    } else {
        EXPECT_EQ(function_at(regs.pc), "syscall");
        EXPECT_EQ(regs.ra, 0);
    }
    int64_t here = static_cast<int64_t>(reinterpret_cast<uintptr_t>(&regs));
    EXPECT_LT(regs.sp, here);
    EXPECT_GT(regs.sp, here - 1024L * 1024);
}

TEST(arch_read_regs, exit_has_the_result) {
    self_traced_child child(ask_for_the_parent);
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_getppid, &regs));
    ASSERT_TRUE(run_to_stop(child.pid(), &regs));
    EXPECT_EQ(regs.result, getpid());
}

TEST(arch_read_regs, reads_a_stop_for_a_signal) {
    self_traced_child child(ask_for_the_parent);
    arch_regs regs = {};
    ASSERT_TRUE(arch_read_regs(child.pid(), &regs));
    EXPECT_EQ(regs.result, 0);  // of the call that sent the signal
    EXPECT_NE(regs.pc, 0);
    EXPECT_NE(regs.sp, 0);
}

TEST(arch_read_regs, leaves_the_registers_unchanged_if_the_process_is_not_traced) {
    tracee child(sleep_for_ever);
    arch_regs regs = {.pc = 1, .ra = 2, .number = 3, .result = 4, .sp = 5, .arg = {6}, .unnumbered = true};
    const arch_regs before = regs;
    EXPECT_FALSE(arch_read_regs(child.pid(), &regs));
    EXPECT_EQ(memcmp(&regs, &before, sizeof regs), 0);
}

#if defined(__x86_64__)
TEST(arch_read_regs, call_that_o32_lacks_is_unnumbered) {
    self_traced_child child([] { return syscall(SYS_shmget, 1, 0, 0) == 0 ? 1 : 0; });
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), -1, &regs));
    EXPECT_TRUE(regs.unnumbered);
    EXPECT_EQ(regs.arg[0], 1);
}
#endif

TEST(arch_read_stack_args, reads_two_words_16_bytes_above_the_stack_pointer) {
    const long words[] = {0, 0, 0, 0, 55, -66};
    fake_memory fake{{{0x1000, std::string(reinterpret_cast<const char*>(words), sizeof words)}}};
    arch_regs regs = {};
    regs.sp = 0x1000;
    arch_read_stack_args(&regs, fake.view());
    EXPECT_EQ(regs.arg[4], has_stack_args ? 55 : 0);
    EXPECT_EQ(regs.arg[5], has_stack_args ? -66 : 0);
}

TEST(arch_read_stack_args, unreadable_argument_is_minus_one) {
    fake_memory nothing;
    arch_regs regs = {};
    regs.sp = 0x1000;
    arch_read_stack_args(&regs, nothing.view());
    EXPECT_EQ(regs.arg[4], has_stack_args ? -1 : 0);
    EXPECT_EQ(regs.arg[5], has_stack_args ? -1 : 0);
}

TEST(arch_writeback_sc, writes_number_and_arguments_of_the_record_into_the_process) {
    self_traced_child child(ask_for_the_parent);
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_getppid, &regs));
    syscall_record call = record_at(regs, o32_getpid);
    EXPECT_EQ(write_back(child.pid(), &call), "arch_writeback_sc");
    EXPECT_EQ(call.write_back, 0);
    arch_regs now = {};
    ASSERT_TRUE(arch_read_regs(child.pid(), &now));
    arch_read_stack_args(&now, tracee_memory_of(child.pid()));
    EXPECT_EQ(now.number, o32_getpid);
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(now.arg[i], 101 + i);
    }
    EXPECT_EQ(now.sp, regs.sp);
    // The child called getppid and gets the result of getpid.
    ASSERT_EQ(trace_cont(child.pid(), 0), 0);
    EXPECT_TRUE(exited_with(child.end(), 0));
}

TEST(arch_writeback_sc, the_call_is_made_with_the_arguments_of_the_record) {
    self_traced_child child([] { return static_cast<int>(syscall(SYS_exit_group, 1)); });
    arch_regs regs = {};
    ASSERT_TRUE(run_to_entry(child.pid(), o32_exit_group, &regs));
    syscall_record call = record_at(regs, o32_exit_group);
    write_back(child.pid(), &call);
    ASSERT_EQ(trace_cont(child.pid(), 0), 0);
    EXPECT_TRUE(exited_with(child.end(), 101));
}

TEST(arch_target_signal, gives_the_target_s_numbers) {
    EXPECT_EQ(arch_target_signal(SIGHUP), 1u);
    EXPECT_EQ(arch_target_signal(SIGKILL), 9u);
    EXPECT_EQ(arch_target_signal(SIGBUS), 10u);
    EXPECT_EQ(arch_target_signal(SIGUSR1), 16u);
    EXPECT_EQ(arch_target_signal(SIGCHLD), 18u);
    EXPECT_EQ(arch_target_signal(SIGSTOP), 23u);
    EXPECT_EQ(arch_target_signal(SIGXFSZ), 31u);
}

#if defined(SIGSTKFLT)
TEST(arch_target_signal, is_0_for_a_signal_that_the_target_lacks) {
    EXPECT_EQ(arch_target_signal(SIGSTKFLT), 0u);
}
#endif
