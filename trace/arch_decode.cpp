#include "trace/arch_decode.h"

#include <algorithm>

#include "trace/strace.h"
#include "trace/strace_process.h"
#include "trace/strace_report.h"
#include "trace/syscall_names.h"

namespace {

bool has_name(int64_t number) {
    return number >= o32_first && number < o32_first + syscall_count;
}

int describe_fd(const syscall_view& view, int fd, char* buf, size_t len) {
    return strace_describe_fd(static_cast<const strace_ctx*>(view.cookie), view.pid, fd, buf, len);
}

void report_exit(const syscall_view& view, int code) {
    strace_exit(static_cast<strace_ctx*>(view.cookie), view.pid, strace_exit_call, code, nullptr);
}

syscall_record record_of(const arch_regs& regs, int64_t result) {
    syscall_record call = {regs.pc, regs.ra, regs.number, {}, result, 0};
    std::ranges::copy(regs.arg, call.arg);
    return call;
}

}  // namespace

int arch_print_syscall(const syscall_view& view, syscall_record* call, char* buf, int size) {
    int length = print_syscall(view, call, true, buf, size);
    if (size - length > 2) {
        buf[length++] = '\n';
        buf[length] = '\0';
    }
    return length;
}

int arch_print_syscall_ret(const syscall_view& view, syscall_record* call, char* buf, int size) {
    return print_syscall(view, call, false, buf, size);
}

int arch_dec_syscall(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                     arch_regs* regs) {
    if (!arch_read_regs(pid, regs)) {
        *regs = {};
    }
    if (!has_name(regs->number)) {
        return -1;
    }
    tracee_memory memory = tracee_memory_of(pid);
    arch_read_stack_args(regs, memory);
    syscall_view view = {pid, process->name, &memory, describe_fd, report_exit, ctx};
    syscall_record call = record_of(*regs, regs->number);
    int length = arch_print_syscall(view, &call, buf, size);
    if (call.write_back) {
        arch_writeback_sc(pid, &call);
    }
    return length;
}

int arch_dec_syscall_ret(strace_ctx* ctx, pid_t pid, strace_process* process, char* buf, int size,
                         const arch_regs* regs, arch_regs* ret) {
    if (regs->unnumbered) {
        return 0;
    }
    if (!has_name(regs->number)) {
        return -1;
    }
    if (!arch_read_regs(pid, ret)) {
        ret->result = -1;
    }
    tracee_memory memory = tracee_memory_of(pid);
    arch_regs shown = *regs;
    arch_read_stack_args(&shown, memory);
    syscall_view view = {pid, process->name, &memory, describe_fd, nullptr, ctx};
    syscall_record call = record_of(shown, ret->result);
    int length = arch_print_syscall_ret(view, &call, buf, size);
    if (call.write_back) {
        arch_writeback_sc(pid, &call);
    }
    return length;
}
