// Prints a system call of 32-bit MIPS Linux (O32) as a line of text.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "trace/syscall_record.h"
#include "trace/tracee_memory.h"

// The process that makes the call, and where to read what the call's arguments refer to.
struct syscall_view {
    pid_t pid;
    const char* name;  // of the process
    const tracee_memory* memory;
    // Same contract as proc_fdinfo_lookup.
    int (*describe_fd)(const syscall_view& view, int fd, char* buf, size_t len);
    // Called before the entry line of exit and exit_group is printed; may be null.
    void (*entering_exit)(const syscall_view& view, int code);
    void* cookie;  // for the two callbacks
};

// Prints the line of a call's entry, "[pid name] [pc ra] call(arguments)", or of its exit, the same followed
// by " = result" and a newline, into `buf` (`size` bytes, ends in a NUL). Returns the length of the whole
// text; `size` or more if it was cut. The number must have a name (syscall_names.h). May change the record
// and set its write-back flag, but no call does so at present.
int print_syscall(const syscall_view& view, syscall_record* call, bool entry, char* buf, int size);
