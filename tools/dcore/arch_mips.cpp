#if defined(__mips__)

#include <errno.h>
#include <sys/ptrace.h>

#include "tools/dcore/arch.h"

namespace {

enum { r0 = 6, r2 = r0 + 2, r7 = r0 + 7, r29 = r0 + 29, epc = 40 };  // indexes in the kernel's elf_gregset_t
enum { user_r0 = 0, user_r2 = 2 };                                   // addresses of PTRACE_PEEKUSER

constexpr long restart_without_handler = 514;  // the kernel's ERESTARTNOHAND

constexpr arch_regset regsets[] = {{NT_FPREGSET, "CORE"}};

}  // namespace

const std::span<const arch_regset> arch_regsets = regsets;

std::string arch_regset_layout(unsigned, std::span<const unsigned char>) {
    return {};
}

void arch_set_position(arch_registers* registers, core_word stack, core_word program_counter) {
    registers->value[r29] = stack;
    registers->value[epc] = program_counter;
}

void arch_keep_call(pid_t tid, const arch_registers& registers) {
    if (registers.value[r2] != EINTR || registers.value[r7] != 1) {
        return;
    }
    // After a failed call, the kernel keeps its number in the slot of register 0, which is otherwise 0.
    errno = 0;
    long number = ptrace(PTRACE_PEEKUSER, tid, user_r0, nullptr);
    if (errno == 0 && arch_call_can_be_kept(number)) {
        (void)ptrace(PTRACE_POKEUSER, tid, user_r2,
                     restart_without_handler);  // fails if the thread was killed
    }
}

#endif
