// How the notes of a core are laid out on each machine, and what its registers mean.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace archiveview {

constexpr size_t core_registers_max = 45;

struct core_machine {
    unsigned number;  // an EM_ number of elf.h
    std::string_view name;
    size_t word_bytes;
    // The note of a thread, NT_PRSTATUS.
    size_t status_bytes, status_signal, status_tid, status_registers, register_count, status_has_floats;
    // The note of the process, NT_PRPSINFO.
    size_t process_bytes, process_pid, process_name, process_arguments;
    size_t fault_address;  // in NT_SIGINFO
    size_t pc, sp;         // indexes of registers
    size_t mutex_kind;     // offset in a mutex of the C library
    size_t mutex_users;    // likewise
    int fault_signals[4];  // the signals of a wrong access or instruction, which name an address
};

// Null if nothing is known about this machine.
const core_machine* core_machine_find(unsigned number);

// "SIGSEGV"; "signal 77" if it has no name.
std::string core_signal_name(const core_machine& machine, int signal);

// The name of a system call by the machine's number; empty if it is unknown.
std::string_view core_call_name(const core_machine& machine, int64_t number);

}  // namespace archiveview
