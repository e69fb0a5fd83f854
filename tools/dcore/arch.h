// The parts that depend on the processor: how a core file names it, the layout of its registers, and how an
// interrupted system call is restarted. Each processor has a source: arch_x86_64.cpp, arch_mips.cpp (O32).
#pragma once

#include <elf.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <span>
#include <string>

// The words in a core file are as large as `long`. The dumped process has the same word size as the dumper.
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
#error "this processor has no arch_*.cpp"
#endif

// The general registers, in the layout of a core file.
struct arch_registers {
    core_word value[arch_general_count];
};

// Another set of registers: its number, which the kernel and the note share, and the owner of the note.
struct arch_regset {
    unsigned type;
    const char* owner;
};
constexpr size_t arch_regset_count_max = 4;
extern const std::span<const arch_regset> arch_regsets;

// Returns the content of the note that describes where the parts of the set `type` are, or an empty string if
// the set has no such note. The owner of the note is "LINUX", and it follows the notes of all threads.
// `content` is the set of one thread.
std::string arch_regset_layout(unsigned type, std::span<const unsigned char> content);
constexpr unsigned arch_layout_note = 0x205;  // NT_X86_XSAVE_LAYOUT, which older headers lack

// Sets the stack pointer and the program counter.
void arch_set_position(arch_registers* registers, core_word stack, core_word program_counter);

// Some system calls do not resume after a stop: they fail with EINTR although no signal was delivered. Makes
// such a call restart when the thread runs on, unless a signal handler runs first. The thread must be in a
// stop that is not a signal's; `registers` are its registers. Writes a single word, so that the thread can
// run on correctly even if the dumper is killed at any moment.
void arch_keep_call(pid_t tid, const arch_registers& registers);

// True for the numbers of system calls that may be restarted in this way.
bool arch_call_can_be_kept(long number);
