// The notes of a core file: its threads' registers, the process, its auxiliary vector, its mapped files.
// Layout: <linux/elfcore.h>; order and content as the kernel writes them.
#pragma once

#include <stdint.h>

#include <string>

#include "tools/dcore/layout.h"
#include "tools/dcore/process.h"
#include "tools/dcore/stream.h"
#include "tools/dcore/threads.h"

// What the notes are made of. What is borrowed has to live as long.
struct core_notes {
    const process_facts* facts = nullptr;
    const thread_hold* hold = nullptr;
    const core_layout* layout = nullptr;
    std::string command_line;  // as the kernel has it, with NULs between the words
    std::string auxv;
    size_t regset_size[arch_regset_count_max] = {};  // of arch_regsets; 0 when the processor has no such set
    std::string regset_layout;                       // of the one that has a note about it
};

// Reads what the notes need beyond what is given. All threads stand still.
core_notes notes_prepare(const process_facts& facts, const thread_hold& hold, const core_layout& layout);

// How many bytes notes_put will put.
uint64_t notes_length(const core_notes& notes);

// Puts the notes into the stream. Registers that can't be read any more are zeros.
void notes_put(const core_notes& notes, core_stream& stream);
