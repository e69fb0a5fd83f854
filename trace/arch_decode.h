// Turns a system-call stop of a traced process into a line of text.
#pragma once

#include <sys/types.h>

#include "trace/arch.h"
#include "trace/print_syscall.h"

struct strace_ctx;
struct strace_process;

// Print one stop of `process` as a line into `buf` (`size` bytes). The entry line ends in a newline if more
// than two bytes are left for it. Return the length of the line, `size` or more if it was cut; -1 if the
// call's number has no name or, at an entry, if the registers could not be read. At an exit, unreadable
// registers give the result -1; a call that O32 has no number for gives 0. `regs` receives the entry's
// registers, which the exit needs again; `ret` receives those of the exit.
int arch_dec_syscall(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                     arch_regs* regs);
int arch_dec_syscall_ret(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                         const arch_regs* regs, arch_regs* ret);

// print_syscall for an entry, with the newline, and for an exit.
int arch_print_syscall(const syscall_view& view, syscall_record* call, char* buf, int size);
int arch_print_syscall_ret(const syscall_view& view, syscall_record* call, char* buf, int size);
