#if defined(__x86_64__)

#include <errno.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include "tools/dcore/arch.h"

namespace {

enum { rax = 10, orig_rax = 15, rip = 16, rsp = 19 };  // places in struct user_regs_struct
static_assert(offsetof(user_regs_struct, orig_rax) == orig_rax * sizeof(core_word));
static_assert(sizeof(user_regs_struct) == sizeof(arch_registers));

constexpr long restart_without_handler = 514;  // the kernel's ERESTARTNOHAND

constexpr arch_regset regsets[] = {{NT_FPREGSET, "CORE"}, {NT_X86_XSTATE, "LINUX"}};

}  // namespace

const std::span<const arch_regset> arch_regsets = regsets;

void arch_set_position(arch_registers& registers, core_word stack, core_word program_counter) {
    registers.value[rsp] = stack;
    registers.value[rip] = program_counter;
}

void arch_keep_call(pid_t tid, const arch_registers& registers) {
    if (static_cast<long>(registers.value[rax]) == -EINTR &&
        arch_call_can_be_kept(static_cast<long>(registers.value[orig_rax]))) {
        (void)ptrace(PTRACE_POKEUSER, tid, offsetof(user, regs) + rax * sizeof(core_word),
                     -restart_without_handler);  // a thread that was killed needs it no more
    }
}

#endif
