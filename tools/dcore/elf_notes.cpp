#include "tools/dcore/elf_notes.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tools/dcore/note_writer.h"
#include "tools/dcore/proc_text.h"
#include "tools/dcore/registers.h"

namespace {

// The kernel's elf_prstatus and elf_prpsinfo. On 32-bit machines, the times in the C library's structures
// have a different size.
struct word_time {
    core_word seconds, microseconds;
};
struct note_status {
    int32_t signal, code, error;
    int16_t current_signal;
    core_word pending, blocked;
    int32_t pid, parent, group, session;
    word_time user, system, children_user, children_system;
    arch_registers registers;
    int32_t has_floats;
};
struct note_process {
    char state, state_letter, zombie, nice;
    core_word flags;
    uint32_t uid, gid;
    int32_t pid, parent, group, session;
    char name[16];
    char arguments[80];
};
static_assert(sizeof(note_status) == (core_is_64 ? 336 : 256) || arch_elf_machine != EM_X86_64);
static_assert(sizeof(note_process) == (core_is_64 ? 136 : 128));
static_assert(sizeof(siginfo_t) == 128);

constexpr size_t regset_limit = 1 << 16;

word_time time_of(uint64_t ticks) {
    auto rate = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return {static_cast<core_word>(ticks / rate), static_cast<core_word>(ticks % rate * (1'000'000 / rate))};
}

// As in the kernel's core files, the times of the first thread are those of the process.
process_stat stat_of(const core_notes& notes, const held_thread& thread) {
    process_stat stat = notes.facts->stat;
    if (thread.tid != notes.hold->pid) {
        char name[64];
        snprintf(name, sizeof name, "task/%d/stat", thread.tid);
        process_parse_stat(proc_text(notes.hold->pid, name, 1024), &stat);
    }
    return stat;
}

void write_status(core_stream* stream, const core_notes& notes, const held_thread& thread) {
    process_stat stat = stat_of(notes, thread);
    note_status note;
    memset(&note, 0, sizeof note);  // including the gaps between fields
    note.pending = static_cast<core_word>(thread.pending);
    note.blocked = static_cast<core_word>(thread.blocked);
    note.pid = thread.tid;
    note.parent = stat.parent;
    note.group = stat.group;
    note.session = stat.session;
    note.user = time_of(stat.user);
    note.system = time_of(stat.system);
    note.children_user = time_of(stat.children_user);
    note.children_system = time_of(stat.children_system);
    note.registers = thread.registers;
    note.has_floats = thread.has_registers && notes.regset_size[0] > 0;
    note_write(stream, NT_PRSTATUS, "CORE", &note, sizeof note);
}

void write_process(core_stream* stream, const core_notes& notes) {
    const process_stat& stat = notes.facts->stat;
    constexpr std::string_view states = "RSDTZW";
    note_process note;
    memset(&note, 0, sizeof note);
    size_t state = states.find(stat.state);
    note.state = state == states.npos ? 0 : static_cast<char>(state);
    note.state_letter = stat.state;
    note.zombie = stat.state == 'Z';
    note.nice = static_cast<char>(stat.nice);
    note.flags = static_cast<core_word>(stat.flags);
    note.uid = notes.facts->status.uid;
    note.gid = notes.facts->status.gid;
    note.pid = notes.hold->pid;
    note.parent = stat.parent;
    note.group = stat.group;
    note.session = stat.session;
    stat.name.copy(note.name, sizeof note.name - 1);
    size_t length = notes.command_line.copy(note.arguments, sizeof note.arguments - 1);
    std::replace(note.arguments, note.arguments + length, '\0', ' ');
    note_write(stream, NT_PRPSINFO, "CORE", &note, sizeof note);
}

uint64_t files_length(const core_layout& layout) {
    uint64_t length = 2 * sizeof(core_word);
    for (const core_file_mapping& file : layout.files) {
        length += 3 * sizeof(core_word) + file.name_length + 1;
    }
    return length;
}

void write_word(core_stream* stream, uint64_t value) {
    auto word = static_cast<core_word>(value);
    stream_write(stream, &word, sizeof word);
}

void write_files(core_stream* stream, const core_layout& layout) {
    uint64_t length = files_length(layout);
    note_begin(stream, NT_FILE, "CORE", length);
    write_word(stream, layout.files.size());
    write_word(stream, layout.page);
    for (const core_file_mapping& file : layout.files) {
        write_word(stream, file.start);
        write_word(stream, file.end);
        write_word(stream, file.offset_pages);
    }
    for (const core_file_mapping& file : layout.files) {
        stream_write(stream, layout.names.data() + file.name, file.name_length);
        stream_write_zeros(stream, 1);
    }
    note_end(stream, length);
}

void write_regsets(core_stream* stream, const core_notes& notes, const held_thread& thread) {
    if (!thread.has_registers) {
        return;
    }
    for (size_t i = 0; i < arch_regsets.size(); i++) {
        size_t size = notes.regset_size[i];
        if (size > 0) {
            auto content = std::make_unique<unsigned char[]>(size);
            registers_read_set(thread, arch_regsets[i].type, content.get(), size);
            note_write(stream, arch_regsets[i].type, arch_regsets[i].owner, content.get(), size);
        }
    }
}

uint64_t regsets_length(const core_notes& notes) {
    uint64_t length = 0;
    for (size_t size : notes.regset_size) {
        length += size > 0 ? note_length(size) : 0;
    }
    return length;
}

void measure_regsets(core_notes* notes) {
    static_assert(arch_regset_count_max >= 2);
    auto buffer = std::make_unique<unsigned char[]>(regset_limit);
    auto whole = std::ranges::find(notes->hold->threads, true, &held_thread::has_registers);
    for (size_t i = 0; whole != notes->hold->threads.end() && i < arch_regsets.size(); i++) {
        size_t size = registers_read_set(*whole, arch_regsets[i].type, buffer.get(), regset_limit);
        notes->regset_size[i] = size;
        notes->regset_layout += arch_regset_layout(arch_regsets[i].type, {buffer.get(), size});
    }
}

}  // namespace

core_notes notes_prepare(const process_facts& facts, const thread_hold& hold, const core_layout& layout) {
    core_notes notes;
    notes.facts = &facts;
    notes.hold = &hold;
    notes.layout = &layout;
    pid_t tid = hold.threads.front().tid;
    notes.command_line = proc_text(tid, "cmdline", sizeof note_process::arguments);
    notes.auxv = proc_text(tid, "auxv", 4096);
    measure_regsets(&notes);
    return notes;
}

uint64_t notes_length(const core_notes& notes) {
    uint64_t length = note_length(sizeof(note_process)) + note_length(sizeof(siginfo_t)) +
                      note_length(notes.auxv.size()) + note_length(files_length(*notes.layout));
    uint64_t regsets = regsets_length(notes);
    for (const held_thread& thread : notes.hold->threads) {
        length += note_length(sizeof(note_status)) + (thread.has_registers ? regsets : 0);
    }
    length += notes.regset_layout.empty() ? 0 : note_length(notes.regset_layout.size());
    return length;
}

void notes_write(core_stream* stream, const core_notes& notes) {
    bool first = true;
    for (const held_thread& thread : notes.hold->threads) {
        write_status(stream, notes, thread);
        if (first) {
            write_process(stream, notes);
            note_write(stream, NT_SIGINFO, "CORE", &notes.hold->pending, sizeof notes.hold->pending);
            note_write(stream, NT_AUXV, "CORE", notes.auxv.data(), notes.auxv.size());
            write_files(stream, *notes.layout);
            first = false;
        }
        write_regsets(stream, notes, thread);
    }
    if (const std::string& layout = notes.regset_layout; !layout.empty()) {
        note_write(stream, arch_layout_note, "LINUX", layout.data(), layout.size());
    }
}
