// The notes of a core, taken apart.
#pragma once

#include <stdint.h>

#include <array>
#include <span>
#include <string>
#include <vector>

#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_elf.h"
#include "tools/archiveview/facts/core_machine.h"

namespace archiveview {

struct noted_thread {
    int tid = 0;
    int signal = 0;
    bool has_floats = false;  // false for a thread whose registers could not be read, except pc and sp
    std::array<uint64_t, core_registers_max> registers = {};
};

struct core_notes {
    int pid = 0;  // 0 without a note of the process
    char state = '?';
    std::string name, arguments;
    std::vector<noted_thread> threads;
    std::vector<core_file> files;  // by address
    uint64_t entry = 0;            // where the program begins; 0 if unknown, as below
    uint64_t vdso = 0;             // where the kernel's own page of functions is
    int signal = 0;                // of the note about a signal
    uint64_t fault_address = 0;
    std::string damage;  // what of the notes could not be read: a sentence's end, or empty
};

// `kept` is the beginning of the file, up to the end of the notes or as far as it is there.
core_notes core_notes_read(std::span<const char> kept, const core_head& head, const core_machine& machine,
                           core_budget* budget);

}  // namespace archiveview
