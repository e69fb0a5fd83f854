#if defined(__x86_64__)

#include <cpuid.h>
#include <errno.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/user.h>

#include "tools/dcore/arch.h"

namespace {

enum { rax = 10, orig_rax = 15, rip = 16, rsp = 19 };  // indexes in struct user_regs_struct
static_assert(offsetof(user_regs_struct, orig_rax) == orig_rax * sizeof(core_word));
static_assert(sizeof(user_regs_struct) == sizeof(arch_registers));

constexpr long restart_without_handler = 514;  // the kernel's ERESTARTNOHAND

// The kernel stores the processor's register XCR0, which has a bit for each part, in a part of the set that
// is reserved for software.
constexpr size_t parts_offset = 464;
constexpr unsigned parts_leaf = 13;           // the leaf of CPUID that describes the parts
constexpr unsigned first_described_part = 2;  // parts 0 and 1 are at the same offset on every processor
constexpr unsigned parts_end = 63;

// The kernel's struct x86_xfeat_component.
struct layout_part {
    uint32_t part, size, offset, flags;
};

constexpr arch_regset regsets[] = {{NT_FPREGSET, "CORE"}, {NT_X86_XSTATE, "LINUX"}};

}  // namespace

const std::span<const arch_regset> arch_regsets = regsets;

std::string arch_regset_layout(unsigned type, std::span<const unsigned char> content) {
    uint64_t parts = 0;
    if (type == NT_X86_XSTATE && content.size() >= parts_offset + sizeof parts) {
        memcpy(&parts, content.data() + parts_offset, sizeof parts);
    }
    std::string layout;
    for (unsigned part = first_described_part; part < parts_end; part++) {
        unsigned size = 0, offset = 0, flags = 0, unused = 0;
        if (parts >> part & 1 && __get_cpuid_count(parts_leaf, part, &size, &offset, &flags, &unused)) {
            layout_part row = {part, size, offset, flags};
            layout.append(reinterpret_cast<const char*>(&row), sizeof row);
        }
    }
    return layout;
}

void arch_set_position(arch_registers* registers, core_word stack, core_word program_counter) {
    registers->value[rsp] = stack;
    registers->value[rip] = program_counter;
}

void arch_keep_call(pid_t tid, const arch_registers& registers) {
    if (static_cast<long>(registers.value[rax]) == -EINTR &&
        arch_call_can_be_kept(static_cast<long>(registers.value[orig_rax]))) {
        (void)ptrace(PTRACE_POKEUSER, tid, offsetof(user, regs) + rax * sizeof(core_word),
                     -restart_without_handler);  // fails if the thread was killed
    }
}

#endif
