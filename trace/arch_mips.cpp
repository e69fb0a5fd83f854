// 32-bit MIPS with the O32 calling convention: the device.
#include <stdio.h>
#include <sys/ptrace.h>

#include "trace/arch.h"
#include "trace/ptrace_data.h"

namespace {

// Indexes into the general register set of PTRACE_GETREGS, which has 64 bits for each register, and into the
// user area of PTRACE_POKEUSER (asm/ptrace.h).
constexpr size_t reg_v0 = 2;
constexpr size_t reg_a0 = 4;
constexpr size_t reg_sp = 29;
constexpr size_t reg_ra = 31;
constexpr size_t reg_epc = 34;  // in the register set; PEEKUSER and POKEUSER have it at 64
constexpr size_t reg_count = 38;

constexpr size_t register_args = 4;
constexpr int64_t stack_args = 16;  // where arguments 5 and 6 are, from the stack pointer on
constexpr int64_t word_bytes = 4;

// The kernel fills all 64 bits by extending the sign, but what the upper half holds does not matter here.
int64_t word(uint64_t value) {
    return static_cast<int32_t>(value);
}

}  // namespace

bool arch_read_regs(pid_t pid, arch_regs* regs) {
    uint64_t user[reg_count] = {};
    if (ptrace(PTRACE_GETREGS, pid, nullptr, user) < 0) {
        return false;
    }
    *regs = {
        .pc = word(user[reg_epc]),
        .ra = word(user[reg_ra]),
        .number = word(user[reg_v0]),
        .result = word(user[reg_v0]),
        .sp = word(user[reg_sp]),
        .arg = {word(user[reg_a0]), word(user[reg_a0 + 1]), word(user[reg_a0 + 2]), word(user[reg_a0 + 3]), 0,
                0},
        .unnumbered = false,
    };
    return true;
}

void arch_read_stack_args(arch_regs* regs, const tracee_memory& memory) {
    int64_t pair[2];
    tracee_word_pair(memory, static_cast<uint64_t>(regs->sp + stack_args), pair);
    regs->arg[register_args] = pair[0];
    regs->arg[register_args + 1] = pair[1];
}

void arch_writeback_sc(pid_t pid, syscall_record* call) {
    fputs("arch_writeback_sc", stdout);
    for (size_t i = 0; i < register_args; i++) {
        ptrace(PTRACE_POKEUSER, pid, ptrace_data(static_cast<int64_t>(reg_a0 + i)),
               ptrace_data(call->arg[i]));
    }
    ptrace(PTRACE_POKEUSER, pid, ptrace_data(static_cast<int64_t>(reg_v0)), ptrace_data(call->number));
    int64_t sp = ptrace(PTRACE_PEEKUSER, pid, ptrace_data(static_cast<int64_t>(reg_sp)), nullptr);
    for (int64_t i = 0; i < 2; i++) {
        ptrace(PTRACE_POKEDATA, pid, ptrace_data(sp + stack_args + i * word_bytes),
               ptrace_data(call->arg[register_args + static_cast<size_t>(i)]));
    }
    call->write_back = 0;
}

unsigned arch_target_signal(int sig) {
    return static_cast<unsigned>(sig);
}
