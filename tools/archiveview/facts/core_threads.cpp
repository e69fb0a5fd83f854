#include "tools/archiveview/facts/core_threads.h"

#include <elf.h>
#include <linux/futex.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "tools/archiveview/facts/core_bytes.h"
#include "tools/archiveview/facts/core_files.h"

namespace archiveview {
namespace {

// What the kernel leaves as the result of a call that was interrupted and is to be restarted, and EINTR,
// which it leaves where the dumper restarts the call.
constexpr int64_t interrupted_results[] = {4, 512, 513, 514, 516};
constexpr int64_t restart_with_timeout = 516;

namespace x86_64 {
enum { r10 = 7, rax = 10, rdx = 12, rsi = 13, rdi = 14, orig_rax = 15, cs = 17 };
constexpr uint64_t code_segment_64 = 0x33;
constexpr int64_t futex = 202, restarted = 219;
constexpr int64_t number_limit = 1024;
}  // namespace x86_64

namespace mips {
enum { v0 = 6 + 2, a0 = 6 + 4, a1, a2, a3 };
constexpr uint64_t code_bytes = 8;  // two instructions: the number into v0, then the call
constexpr uint32_t load_number = 0x24020000, load_mask = 0xffff0000, call = 0x0000000c;
constexpr int64_t futex = 4238, futex_time64 = 4422;
}  // namespace mips

// Operations that hardly any other call with a pointer first has as its second argument.
constexpr uint64_t telling_operations[] = {FUTEX_WAIT_PRIVATE, FUTEX_WAIT_BITSET_PRIVATE,
                                           FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME,
                                           FUTEX_WAIT_BITSET | FUTEX_CLOCK_REALTIME, FUTEX_LOCK_PI_PRIVATE};
constexpr uint64_t clock_limit = 16;  // numbers of clocks
constexpr uint64_t pointer_least = 65536;

constexpr std::string_view some_call = "a system call";
constexpr std::string_view in_kernel = "the kernel";

bool is_interrupted(int64_t result) {
    return std::ranges::find(interrupted_results, result) != std::end(interrupted_results);
}

// The dumper writes zeros for a thread that did not stop, except its position.
bool has_registers(const noted_thread& thread, const core_machine& machine) {
    if (thread.has_floats) {
        return true;
    }
    for (size_t i = 0; i < machine.register_count; i++) {
        if (i != machine.pc && i != machine.sp && thread.registers[i] != 0) {
            return true;
        }
    }
    return false;
}

bool is_x86_64_call(const noted_thread& thread) {
    const auto number = static_cast<int64_t>(thread.registers[x86_64::orig_rax]);
    return number >= 0 && number < x86_64::number_limit &&
           is_interrupted(static_cast<int64_t>(0 - thread.registers[x86_64::rax]));
}

bool is_mips_call(const noted_thread& thread) {
    return thread.registers[mips::a3] == 1 &&
           is_interrupted(static_cast<int64_t>(thread.registers[mips::v0]));
}

bool is_in_call(const noted_thread& thread, const core_machine& machine) {
    return machine.number == EM_MIPS ? is_mips_call(thread) : is_x86_64_call(thread);
}

// The registers do not have a call's number on MIPS. It is read from the code if the core has that.
int64_t mips_number(const noted_thread& thread, const core_machine& machine, const core_memory& memory) {
    const std::string_view code = memory.at(thread.registers[machine.pc] - mips::code_bytes);
    const auto load = value_at<uint32_t>(code, 0), call = value_at<uint32_t>(code, 4);
    const bool is_call = code.size() == mips::code_bytes && call == mips::call &&
                         (load & mips::load_mask) == mips::load_number;
    return is_call ? static_cast<int64_t>(load & ~mips::load_mask) : -1;
}

// The first three arguments of a call.
struct call_arguments {
    uint64_t first, second, third;
};

call_arguments arguments_of(const noted_thread& thread, const core_machine& machine) {
    const auto& all = thread.registers;
    return machine.number == EM_MIPS ? call_arguments{all[mips::a0], all[mips::a1], all[mips::a2]}
                                     : call_arguments{all[x86_64::rdi], all[x86_64::rsi], all[x86_64::rdx]};
}

// Without the call's number, its arguments tell a wait for a futex: the word there still has the value that
// the thread found, or names the owner of the lock.
bool looks_like_futex(const call_arguments& call, const core_memory& memory) {
    const std::string_view word = memory.at(call.first);
    const bool is_telling =
        std::ranges::find(telling_operations, call.second) != std::end(telling_operations);
    const bool has_owner = (call.second & FUTEX_CMD_MASK) == FUTEX_LOCK_PI;
    return is_telling && word.size() >= sizeof(uint32_t) &&
           (has_owner || value_at<uint32_t>(word, 0) == static_cast<uint32_t>(call.third));
}

// Only four calls continue in this way after an interruption: these three, and a wait for a futex with a
// timeout.
std::string_view restarted_name(const call_arguments& call) {
    if (call.first < clock_limit && call.third >= pointer_least) {
        return "clock_nanosleep";
    }
    const bool has_count = call.second > 0 && call.second < pointer_least;
    return has_count || call.first == 0 ? "poll" : "nanosleep";
}

struct found_call {
    int64_t number = -1;
    std::string name;
    bool is_futex = false;
};

found_call guess_call(const noted_thread& thread, const core_machine& machine, const core_memory& memory,
                      bool is_restarted) {
    const call_arguments arguments = arguments_of(thread, machine);
    if (looks_like_futex(arguments, memory)) {
        return {-1, "futex", true};
    }
    return {-1, std::string(is_restarted ? restarted_name(arguments) : ""), false};
}

found_call find_mips_call(const noted_thread& thread, const core_machine& machine,
                          const core_memory& memory) {
    const int64_t number = mips_number(thread, machine, memory);
    if (number < 0) {
        const auto result = static_cast<int64_t>(thread.registers[mips::v0]);
        return guess_call(thread, machine, memory, result == restart_with_timeout);
    }
    return {number, std::string(core_call_name(machine, number)),
            number == mips::futex || number == mips::futex_time64};
}

found_call find_x86_64_call(const noted_thread& thread, const core_machine& machine,
                            const core_memory& memory) {
    if (thread.registers[x86_64::cs] != x86_64::code_segment_64) {
        return {};  // a program of 32 bits, whose calls have other numbers
    }
    const auto number = static_cast<int64_t>(thread.registers[x86_64::orig_rax]);
    if (number == x86_64::restarted) {
        return guess_call(thread, machine, memory, true);
    }
    return {number, std::string(core_call_name(machine, number)), number == x86_64::futex};
}

futex_wait x86_64_wait(const noted_thread& thread) {
    return {.thread = 0,
            .address = thread.registers[x86_64::rdi],
            .operation = static_cast<uint32_t>(thread.registers[x86_64::rsi]),
            .value = static_cast<uint32_t>(thread.registers[x86_64::rdx]),
            .has_timeout = thread.registers[x86_64::r10] != 0};
}

futex_wait mips_wait(const noted_thread& thread) {
    return {.thread = 0,
            .address = thread.registers[mips::a0],
            .operation = static_cast<uint32_t>(thread.registers[mips::a1]),
            .value = static_cast<uint32_t>(thread.registers[mips::a2]),
            .has_timeout = static_cast<int64_t>(thread.registers[mips::v0]) == restart_with_timeout};
}

futex_wait wait_of(const noted_thread& thread, const core_machine& machine) {
    return machine.number == EM_MIPS ? mips_wait(thread) : x86_64_wait(thread);
}

// The state of the process is that of its first thread.
char state_of(const noted_thread& noted, const core_notes& notes, const core_machine& machine) {
    if (notes.state == 'T' || notes.state == 't') {
        return notes.state;
    }
    if (!has_registers(noted, machine)) {
        return 'D';
    }
    return is_in_call(noted, machine) ? 'S' : 'R';
}

}  // namespace

void core_threads_want(const core_notes& notes, const core_machine& machine, core_memory* memory) {
    for (const noted_thread& thread : notes.threads) {
        if (!is_in_call(thread, machine)) {
            continue;
        }
        memory->want(arguments_of(thread, machine).first, mutex_bytes);
        if (machine.number == EM_MIPS) {
            memory->want(thread.registers[machine.pc] - mips::code_bytes, mips::code_bytes);
        }
    }
}

std::vector<futex_wait> core_threads_read(const core_notes& notes, const core_machine& machine,
                                          const core_memory& memory, core_facts* facts) {
    std::vector<futex_wait> waits;
    const core_files_view files(notes.files, notes.vdso);
    for (const noted_thread& noted : notes.threads) {
        core_thread thread;
        thread.tid = noted.tid;
        thread.pc = noted.registers[machine.pc];
        thread.sp = noted.registers[machine.sp];
        thread.place = files.place(thread.pc);
        thread.state = state_of(noted, notes, machine);
        // The kernel gives the signal that ended the process to all threads; the first one received it.
        thread.signal = facts->threads.empty() ? noted.signal : 0;
        if (!has_registers(noted, machine)) {
            thread.waits_in = in_kernel;
        } else if (is_in_call(noted, machine)) {
            const found_call call = machine.number == EM_MIPS ? find_mips_call(noted, machine, memory)
                                                              : find_x86_64_call(noted, machine, memory);
            thread.call = call.number;
            thread.waits_in = call.name.empty() ? some_call : call.name;
            if (call.is_futex) {
                waits.push_back(wait_of(noted, machine));
                waits.back().thread = facts->threads.size();
                thread.futex = waits.back().address;
            }
        }
        facts->threads.push_back(std::move(thread));
    }
    return waits;
}

}  // namespace archiveview
