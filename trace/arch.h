// What depends on the processor: the registers of a tracee, its arguments, write-back, and signal numbers.
//
// Each processor has one source (arch_mips.cpp, arch_x86_64.cpp). It shows a system call as 32-bit MIPS Linux
// (O32) would: a number from 4000 on, six arguments, one result.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "trace/syscall_record.h"
#include "trace/tracee_memory.h"

// The registers at one stop. Values are sign-extended from the processor's words.
struct arch_regs {
    int64_t pc;
    int64_t ra;
    int64_t number;  // the call's number at an entry; may already be the result at an exit
    int64_t result;
    int64_t sp;
    int64_t arg[6];   // 5 and 6 only if the processor passes them in registers
    bool unnumbered;  // O32 has no number for this call; it gives no line and no error
};

// Reads the registers of a stopped tracee in one request. False if the kernel refuses; `*regs` is unchanged.
bool arch_read_regs(pid_t pid, arch_regs* regs);

// Reads arguments 5 and 6 from the stack if the processor passes them there. An unreadable one becomes -1.
void arch_read_stack_args(arch_regs* regs, const tracee_memory& memory);

// Writes the record's arguments and number into the process and clears the record's write-back flag. Prints
// "arch_writeback_sc" on standard output.
void arch_writeback_sc(pid_t pid, syscall_record* call);

// The target's number for a signal of this machine; 0 if the target does not have the signal.
unsigned arch_target_signal(int sig);
