#include "tools/archiveview/facts/core_machine.h"

#include <elf.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "trace/syscall_names.h"

namespace archiveview {
namespace {

constexpr core_machine machines[] = {
    {
        .number = EM_X86_64,
        .name = "x86-64",
        .word_bytes = 8,
        .status_bytes = 336,
        .status_signal = 12,
        .status_tid = 32,
        .status_registers = 112,
        .register_count = 27,
        .status_has_floats = 328,
        .process_bytes = 136,
        .process_pid = 24,
        .process_name = 40,
        .process_arguments = 56,
        .fault_address = 16,
        .pc = 16,
        .sp = 19,
        .mutex_kind = 16,
        .mutex_users = 12,
        .fault_signals = {4, 7, 8, 11},
    },
    {
        .number = EM_MIPS,
        .name = "MIPS",
        .word_bytes = 4,
        .status_bytes = 256,
        .status_signal = 12,
        .status_tid = 24,
        .status_registers = 72,
        .register_count = 45,
        .status_has_floats = 252,
        .process_bytes = 128,
        .process_pid = 16,
        .process_name = 32,
        .process_arguments = 48,
        .fault_address = 12,
        .pc = 40,
        .sp = 6 + 29,
        .mutex_kind = 12,
        .mutex_users = 16,
        .fault_signals = {4, 10, 8, 11},
    },
};

constexpr std::string_view x86_64_signals[] = {
    "",        "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",   "SIGTRAP", "SIGABRT", "SIGBUS",
    "SIGFPE",  "SIGKILL", "SIGUSR1",   "SIGSEGV", "SIGUSR2",  "SIGPIPE", "SIGALRM", "SIGTERM",
    "",        "SIGCHLD", "SIGCONT",   "SIGSTOP", "SIGTSTP",  "SIGTTIN", "SIGTTOU", "SIGURG",
    "SIGXCPU", "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH", "SIGIO",   "SIGPWR",  "SIGSYS",
};
constexpr std::string_view mips_signals[] = {
    "",        "SIGHUP",  "SIGINT",  "SIGQUIT", "SIGILL",    "SIGTRAP", "SIGABRT", "SIGEMT",
    "SIGFPE",  "SIGKILL", "SIGBUS",  "SIGSEGV", "SIGSYS",    "SIGPIPE", "SIGALRM", "SIGTERM",
    "SIGUSR1", "SIGUSR2", "SIGCHLD", "SIGPWR",  "SIGWINCH",  "SIGURG",  "SIGIO",   "SIGSTOP",
    "SIGTSTP", "SIGCONT", "SIGTTIN", "SIGTTOU", "SIGVTALRM", "SIGPROF", "SIGXCPU", "SIGXFSZ",
};
static_assert(std::size(x86_64_signals) == 32 && std::size(mips_signals) == 32);

// The index of the O32 call with the same name, by the number of the x86-64 call; -1 if there is none.
constexpr int16_t o32_twins[] = {
#include "trace/x86_64_calls.inc"
};

struct named_call {
    int64_t number;
    std::string_view name;
};

// Calls that the tables of the tracer lack and in which a thread may wait.
constexpr named_call other_x86_64_calls[] = {
    {23, "select"},        {58, "vfork"},        {65, "semop"},          {69, "msgsnd"},
    {70, "msgrcv"},        {220, "semtimedop"},  {288, "accept4"},       {299, "recvmmsg"},
    {307, "sendmmsg"},     {332, "statx"},       {333, "io_pgetevents"}, {426, "io_uring_enter"},
    {441, "epoll_pwait2"}, {449, "futex_waitv"}, {455, "futex_wait"},
};
constexpr named_call other_o32_calls[] = {
    {o32_first + 334, "accept4"},
    {o32_first + 335, "recvmmsg"},
    {o32_first + 343, "sendmmsg"},
    {o32_first + 400, "msgsnd"},
    {o32_first + 401, "msgrcv"},
    {o32_first + 407, "clock_nanosleep_time64"},
    {o32_first + 413, "pselect6_time64"},
    {o32_first + 414, "ppoll_time64"},
    {o32_first + 416, "io_pgetevents_time64"},
    {o32_first + 417, "recvmmsg_time64"},
    {o32_first + 418, "mq_timedsend_time64"},
    {o32_first + 419, "mq_timedreceive_time64"},
    {o32_first + 420, "semtimedop_time64"},
    {o32_first + 421, "rt_sigtimedwait_time64"},
    {o32_first + 422, "futex_time64"},
    {o32_first + 426, "io_uring_enter"},
    {o32_first + 441, "epoll_pwait2"},
    {o32_first + 449, "futex_waitv"},
    {o32_first + 455, "futex_wait"},
};

template <size_t count>
std::string_view name_in(const named_call (&calls)[count], int64_t number) {
    const auto* found = std::ranges::find(calls, number, &named_call::number);
    return found == std::end(calls) ? std::string_view() : found->name;
}

std::string_view o32_name(int64_t index) {
    return index >= 0 && index < o32_calls ? syscall_names[static_cast<size_t>(index)] : std::string_view();
}

}  // namespace

const core_machine* core_machine_find(unsigned number) {
    const auto* found = std::ranges::find(machines, number, &core_machine::number);
    return found == std::end(machines) ? nullptr : found;
}

std::string core_signal_name(const core_machine& machine, int signal) {
    const auto& names = machine.number == EM_MIPS ? mips_signals : x86_64_signals;
    const bool is_named = signal > 0 && signal < static_cast<int>(std::size(names)) && !names[signal].empty();
    return is_named ? std::string(names[signal]) : "signal " + std::to_string(signal);
}

std::string_view core_call_name(const core_machine& machine, int64_t number) {
    if (machine.number == EM_MIPS) {
        const std::string_view name = o32_name(number - o32_first);
        return name.empty() ? name_in(other_o32_calls, number) : name;
    }
    const bool is_listed = number >= 0 && number < static_cast<int64_t>(std::size(o32_twins));
    const std::string_view name = is_listed ? o32_name(o32_twins[number]) : std::string_view();
    return name.empty() ? name_in(other_x86_64_calls, number) : name;
}

}  // namespace archiveview
