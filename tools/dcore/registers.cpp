#include "tools/dcore/registers.h"

#include <elf.h>
#include <errno.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <string>

#include "tools/dcore/proc_text.h"

namespace {

using state = held_thread::state;

// The kernel has 64 signals on most processors, and 128 on MIPS.
constexpr size_t signal_set_size = (NSIG - 1 + 7) / 8;
constexpr int pending_limit = 4;  // the number that one call reads; more are rarely pending

// Returns the pending signals of a thread, or of its process. Stores the first one in `*first` if `first` is
// not null.
uint64_t read_pending(pid_t tid, unsigned which, siginfo_t* first) {
    siginfo_t waiting[pending_limit] = {};
    __ptrace_peeksiginfo_args wanted = {};
    wanted.flags = which;
    wanted.nr = pending_limit;
    long count = ptrace(PTRACE_PEEKSIGINFO, tid, &wanted, waiting);
    uint64_t signals = 0;
    for (long i = 0; i < count; i++) {
        if (waiting[i].si_signo >= 1 && waiting[i].si_signo <= 64) {
            signals |= 1ull << (waiting[i].si_signo - 1);
        }
    }
    if (first && count > 0) {
        *first = waiting[0];
    }
    return signals;
}

// Returns 0, or EMEDIUMTYPE. A thread that has just been killed has no registers, which is not an error.
int read_stopped(held_thread* thread) {
    core_word words[arch_general_count + 1];
    iovec target = {words, sizeof words};
    if (ptrace(PTRACE_GETREGSET, thread->tid, NT_PRSTATUS, &target) != 0) {
        return 0;
    }
    if (target.iov_len != sizeof thread->registers) {
        return EMEDIUMTYPE;
    }
    memcpy(&thread->registers, words, sizeof thread->registers);
    thread->has_registers = true;
    if (thread->signal == 0) {
        arch_keep_call(thread->tid, thread->registers);
    }
    unsigned char blocked[signal_set_size] = {};
    if (ptrace(PTRACE_GETSIGMASK, thread->tid, sizeof blocked, blocked) == 0) {
        memcpy(&thread->blocked, blocked, sizeof thread->blocked);
    }
    thread->pending = read_pending(thread->tid, 0, nullptr);
    return 0;
}

// While a thread waits in the kernel, its file `syscall` ends with its stack pointer and program counter.
void read_position(held_thread* thread) {
    std::string text = proc_text(thread->tid, "syscall", 512);
    std::string_view rest = text;
    rest = rest.substr(0, rest.find('\n'));
    uint64_t numbers[2] = {};
    for (unsigned i = 0; !rest.empty(); i++) {
        std::string_view word = take_word(&rest);
        numbers[0] = numbers[1];
        if (take_prefix(&word, "0x") && !take_hex(&word, &numbers[1])) {
            return;
        }
    }
    arch_set_position(&thread->registers, static_cast<core_word>(numbers[0]),
                      static_cast<core_word>(numbers[1]));
}

}  // namespace

int registers_read_all(thread_hold* hold) {
    for (held_thread& thread : hold->threads) {
        if (thread.now == state::stopped) {
            if (int error = read_stopped(&thread)) {
                return error;
            }
        } else {
            read_position(&thread);
        }
    }
    for (held_thread& thread : hold->threads) {
        if (thread.now == state::stopped) {
            read_pending(thread.tid, PTRACE_PEEKSIGINFO_SHARED, &hold->pending);
            break;
        }
    }
    return 0;
}

size_t registers_read_set(const held_thread& thread, unsigned type, void* out, size_t size) {
    iovec target = {out, size};
    bool is_read = thread.now == state::stopped && ptrace(PTRACE_GETREGSET, thread.tid, type, &target) == 0;
    return is_read ? target.iov_len : 0;
}
