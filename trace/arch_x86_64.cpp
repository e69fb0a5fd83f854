// x86-64, the processor of a development machine. Calls get the O32 number of the call with the same name, so
// the tracer shows the same text as on the device.
#include <linux/audit.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include <algorithm>
#include <iterator>

#include "trace/arch.h"
#include "trace/ptrace_data.h"
#include "trace/syscall_names.h"

namespace {

constexpr int16_t o32_twins[] = {
#include "trace/x86_64_calls.inc"
};

constexpr unsigned long code_segment_64 = 0x33;  // the value of cs in 64-bit mode

// The registers of the arguments, in order.
constexpr size_t argument_offsets[] = {
    offsetof(user_regs_struct, rdi), offsetof(user_regs_struct, rsi), offsetof(user_regs_struct, rdx),
    offsetof(user_regs_struct, r10), offsetof(user_regs_struct, r8),  offsetof(user_regs_struct, r9),
};

// The signals whose number on the target differs from the one on this machine.
constexpr struct {
    int host;
    unsigned target;
} signals[] = {
    {SIGBUS, 10},  {SIGSYS, 12},   {SIGUSR1, 16}, {SIGUSR2, 17},  {SIGCHLD, 18},
    {SIGPWR, 19},  {SIGWINCH, 20}, {SIGURG, 21},  {SIGPOLL, 22},  {SIGSTOP, 23},
    {SIGTSTP, 24}, {SIGCONT, 25},  {SIGTTIN, 26}, {SIGTTOU, 27},  {SIGVTALRM, 28},
    {SIGPROF, 29}, {SIGXCPU, 30},  {SIGXFSZ, 31}, {SIGSTKFLT, 0},
};

// The index of the O32 call with the same name, or -1.
int twin_of(unsigned long number) {
    return number < std::size(o32_twins) ? o32_twins[number] : -1;
}

void write_register(pid_t pid, size_t offset, int64_t value) {
    ptrace(PTRACE_POKEUSER, pid, ptrace_data(static_cast<int64_t>(offset)), ptrace_data(value));
}

// The call's number in O32, or -1.
int64_t o32_number(int twin) {
    return twin >= 0 ? o32_first + twin : -1;
}

// Reads only what describes the stop, which is faster than reading all registers (Linux 5.3 or later). At an
// exit the kernel gives no number and no arguments; they are not used there.
bool read_syscall_info(pid_t pid, arch_regs* regs) {
    __ptrace_syscall_info info = {};
    void* size = ptrace_data(sizeof info);
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, size, &info) <= 0 || info.op == PTRACE_SYSCALL_INFO_NONE) {
        return false;
    }
    *regs = {};
    regs->pc = static_cast<int64_t>(info.instruction_pointer);
    regs->sp = static_cast<int64_t>(info.stack_pointer);
    regs->number = -1;
    regs->unnumbered = true;
    if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
        regs->result = info.exit.rval;
    } else if (info.op == PTRACE_SYSCALL_INFO_ENTRY && info.arch == AUDIT_ARCH_X86_64) {
        int twin = twin_of(info.entry.nr);
        regs->number = o32_number(twin);
        regs->unnumbered = twin < 0;
        std::ranges::copy(info.entry.args, regs->arg);
    }
    return true;
}

bool read_general_regs(pid_t pid, arch_regs* regs) {
    user_regs_struct user;
    if (ptrace(PTRACE_GETREGS, pid, nullptr, &user) < 0) {
        return false;
    }
    int twin = user.cs == code_segment_64 ? twin_of(user.orig_rax) : -1;
    *regs = {
        .pc = static_cast<int64_t>(user.rip),
        .ra = 0,  // x86-64 has no such register
        .number = o32_number(twin),
        .result = static_cast<int64_t>(user.rax),
        .sp = static_cast<int64_t>(user.rsp),
        .arg = {static_cast<int64_t>(user.rdi), static_cast<int64_t>(user.rsi),
                static_cast<int64_t>(user.rdx), static_cast<int64_t>(user.r10), static_cast<int64_t>(user.r8),
                static_cast<int64_t>(user.r9)},
        .unnumbered = twin < 0,
    };
    return true;
}

}  // namespace

bool arch_read_regs(pid_t pid, arch_regs* regs) {
    return read_syscall_info(pid, regs) || read_general_regs(pid, regs);
}

void arch_read_stack_args(arch_regs* /*regs*/, const tracee_memory& /*memory*/) {}

void arch_writeback_sc(pid_t pid, syscall_record* call) {
    fputs("arch_writeback_sc", stdout);
    for (size_t i = 0; i < std::size(argument_offsets); i++) {
        write_register(pid, argument_offsets[i], call->arg[i]);
    }
    auto twin = std::ranges::find(o32_twins, call->number - o32_first);
    if (twin != std::end(o32_twins)) {
        write_register(pid, offsetof(user_regs_struct, orig_rax), twin - o32_twins);
    }
    call->write_back = 0;
}

unsigned arch_target_signal(int sig) {
    auto found = std::ranges::find(signals, sig, [](const auto& row) { return row.host; });
    return found != std::end(signals) ? found->target : static_cast<unsigned>(sig);
}
