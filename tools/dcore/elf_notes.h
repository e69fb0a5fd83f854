// The notes of a core file: its threads' registers, the process, its auxiliary vector, its mapped files.
// Layout: <linux/elfcore.h>. Order and content are those of the kernel's own core files.
#pragma once

#include <stdint.h>

#include <string>

#include "tools/dcore/layout.h"
#include "tools/dcore/process.h"
#include "tools/dcore/stream.h"
#include "tools/dcore/threads.h"

struct core_notes {
    const process_facts* facts = nullptr;  // borrowed, as are the next two
    const thread_hold* hold = nullptr;
    const core_layout* layout = nullptr;
    std::string command_line;  // from the kernel, with NULs between the words
    std::string auxv;
    size_t regset_size[arch_regset_count_max] = {};  // of arch_regsets; 0 if the processor lacks the set
    std::string regset_layout;                       // arch_regset_layout() of the set that has one
};

// Reads what the notes need beyond the arguments, which are borrowed. All threads are stopped.
core_notes notes_prepare(const process_facts& facts, const thread_hold& hold, const core_layout& layout);

// The number of bytes that notes_write() writes.
uint64_t notes_length(const core_notes& notes);

// Registers that can no longer be read become zeros.
void notes_write(core_stream* stream, const core_notes& notes);
