// What depends on the processor of a tracee, and the decoder that is built on it.
//
// One source for each processor (arch_mips.cpp, arch_x86_64.cpp) presents a stop as O32 sees it: the call's
// number from 4000 on, six arguments, one result.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "trace/print_syscall.h"

struct strace_ctx;
struct strace_process;

// The registers of one stop. Values are sign-extended from the processor's words.
struct arch_regs {
    int64_t pc;
    int64_t ra;
    int64_t number;  // of the call at an entry; at an exit it may be overwritten by the result
    int64_t result;
    int64_t sp;
    int64_t arg[6];   // 5 and 6 only where the processor has them in registers
    bool unnumbered;  // a call that O32 has no number for: it gives no line, and that is no fault
};

// Reads all registers in one request. False when the kernel refuses; the snapshot is then undefined.
bool arch_read_regs(pid_t pid, arch_regs* regs);

// Completes arguments 5 and 6 from the stack, where that is where the processor has them. One that can't be
// read is -1.
void arch_read_stack_args(const tracee_memory& memory, arch_regs* regs);

// Writes the record's arguments and number back into the process and clears its write-back flag.
void arch_writeback_sc(pid_t pid, syscall_record* call);

// The target's number of a signal of this machine; 0 where it has none.
unsigned arch_target_signal(int sig);

// Print one stop of `process` as a line into `buf` (`size` bytes), the entry with a newline where there is
// room. Return the length of the line, `size` or more when it was cut; -1 when the registers can't be read or
// the call's number has no name. `regs` gets the entry's snapshot, `ret` the exit's. The return of an
// unnumbered call is 0.
int arch_dec_syscall(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                     arch_regs* regs);
int arch_dec_syscall_ret(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                         const arch_regs* regs, arch_regs* ret);

// The common printer with the entry flag set, and the newline, or clear.
int arch_print_syscall(const syscall_view& view, syscall_record* call, char* buf, int size);
int arch_print_syscall_ret(const syscall_view& view, syscall_record* call, char* buf, int size);
