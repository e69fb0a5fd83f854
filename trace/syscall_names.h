// Names of system calls in the numbering of 32-bit MIPS Linux (O32).
#pragma once

#include <stddef.h>

#include <array>

constexpr int o32_first = 4000;     // number of the first call
constexpr int syscall_count = 932;  // numbers that have a name, right or wrong
constexpr int o32_calls = 334;      // how many of these are O32 calls

// Indexed by the call's number minus o32_first. The names of the 64-bit and of the N32 calls follow those of
// O32. Each list has the markers that begin and end it in the kernel's header. A number above the O32 calls
// therefore gets a wrong name; this is deliberate.
struct syscall_name_table {
    const char* operator[](size_t index) const;
    static constexpr size_t size() { return syscall_count; }
};
inline constexpr syscall_name_table syscall_names;

// Names of the calls that socketcall multiplexes, indexed by their number; "" if there is no such call.
constexpr int socketcall_count = 32;
extern const std::array<const char*, socketcall_count> socketcall_names;
