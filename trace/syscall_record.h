// One stop of a process at the entry or exit of a system call, in the numbering of 32-bit MIPS Linux (O32).
#pragma once

#include <stdint.h>

// Values are sign-extended from the processor's words.
struct syscall_record {
    int64_t pc;
    int64_t ra;      // return address of the function that makes the call
    int64_t number;  // O32's, from 4000 on
    int64_t arg[6];
    int64_t result;  // at an entry: the number
    int write_back;  // not 0: the process gets the arguments and the number of this record
};
