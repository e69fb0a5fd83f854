// What depends on the processor: how a core file names it, what its registers look like there, and how a call
// that a stop has interrupted goes on. One source for each: arch_x86_64.cpp, arch_mips.cpp (O32).
#pragma once

#include <elf.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <span>
#include <string>

// A process has the word size of the dumper: the structures of core files follow `long`.
using core_word = unsigned long;
constexpr bool core_is_64 = sizeof(core_word) == 8;

#if defined(__x86_64__)
constexpr size_t arch_general_count = 27;  // struct user_regs_struct
constexpr Elf32_Half arch_elf_machine = EM_X86_64;
constexpr Elf32_Word arch_elf_flags = 0;
#elif defined(__mips__) && _MIPS_SIM == _ABIO32
constexpr size_t arch_general_count = 45;  // the kernel's elf_gregset_t
constexpr Elf32_Half arch_elf_machine = EM_MIPS;
constexpr Elf32_Word arch_elf_flags = 0x1000;  // the O32 calling convention
#else
#error "there is no arch_*.cpp for this processor"
#endif

// The general registers as a core file has them.
struct arch_registers {
    core_word value[arch_general_count];
};

// A further set of registers: the number that the kernel and the note both know it by, and the note's owner.
struct arch_regset {
    unsigned type;
    const char* owner;
};
constexpr size_t arch_regset_count_max = 4;
extern const std::span<const arch_regset> arch_regsets;

// Where the parts of the set `type` are, as the kernel tells it in a note of the owner "LINUX" after those of
// all threads. `content`: the set of one thread. Empty when the set has no such note.
std::string arch_regset_layout(unsigned type, std::span<const unsigned char> content);
constexpr unsigned arch_layout_note = 0x205;  // NT_X86_XSAVE_LAYOUT, which older headers lack

// Puts the stack pointer and the program counter into registers of which nothing else is known.
void arch_set_position(arch_registers& registers, core_word stack, core_word program_counter);

// Some calls do not go on by themselves after a stop: they fail with EINTR, although no signal was delivered.
// Makes such a call start again when the stopped thread goes on, unless a handler of a signal runs first.
// `registers` are the thread's; the caller has it in a stop that is no signal's. One word is written, so that
// there is no time at which the thread can't go on by itself.
void arch_keep_call(pid_t tid, const arch_registers& registers);

// The numbers of the calls for which that is right.
bool arch_call_can_be_kept(long number);
