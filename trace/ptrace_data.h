// Numbers as arguments of ptrace(2).
#pragma once

#include <stdint.h>

// A number or an address of the tracee where ptrace takes a pointer. Keeps the bits that a pointer has.
inline void* ptrace_data(int64_t value) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(value));  // NOLINT(performance-no-int-to-ptr)
}
