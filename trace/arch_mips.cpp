// 32-bit MIPS with the O32 calling convention, the processor of the device.
#include <stdio.h>
#include <sys/ptrace.h>

#include "trace/arch.h"
#include "trace/ptrace_data.h"

namespace {

// Indexes of registers (asm/ptrace.h), both in the set that PTRACE_GETREGS returns, with 64 bits for each,
// and in the user area.
constexpr size_t reg_v0 = 2;
constexpr size_t reg_a0 = 4;
constexpr size_t reg_sp = 29;
constexpr size_t reg_ra = 31;
constexpr size_t reg_epc = 34;  // in the set; 64 in the user area
constexpr size_t reg_count = 38;

constexpr size_t register_args = 4;
constexpr int64_t stack_args = 16;  // offset of arguments 5 and 6 from the stack pointer
constexpr int64_t word_bytes = 4;

// The lower half of a register, sign-extended. The upper half is not used.
int64_t word(uint64_t value) {
    return static_cast<int32_t>(value);
}

void write_register(pid_t pid, size_t index, int64_t value) {
    ptrace(PTRACE_POKEUSER, pid, ptrace_data(static_cast<int64_t>(index)), ptrace_data(value));
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
    tracee_words words = tracee_word_pair(memory, static_cast<uint64_t>(regs->sp + stack_args));
    regs->arg[register_args] = words.first;
    regs->arg[register_args + 1] = words.second;
}

void arch_writeback_sc(pid_t pid, syscall_record* call) {
    fputs("arch_writeback_sc", stdout);
    for (size_t i = 0; i < register_args; i++) {
        write_register(pid, reg_a0 + i, call->arg[i]);
    }
    write_register(pid, reg_v0, call->number);
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
