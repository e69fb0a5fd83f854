// Names of system calls in the numbering of 32-bit MIPS Linux (O32).
#pragma once

#include <array>

constexpr int o32_first = 4000;     // number of the first call
constexpr int syscall_count = 932;  // numbers that have a name, rightly or not
constexpr int o32_calls = 334;      // of which these are O32 calls

// Indexed by the call's number less o32_first. The 64-bit and the N32 names follow those of O32, each list
// with the marks that its header has at its ends; a number beyond O32's calls picks from them, and so has a
// name that is not its own. This is deliberate.
extern const std::array<const char*, syscall_count> syscall_names;

// Names of the calls that socketcall multiplexes, indexed by their number; "" for a number without a call.
constexpr int socketcall_count = 32;
extern const std::array<const char*, socketcall_count> socketcall_names;
