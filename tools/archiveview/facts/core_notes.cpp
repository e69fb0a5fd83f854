#include "tools/archiveview/facts/core_notes.h"

#include <elf.h>
#include <gelf.h>

#include <algorithm>
#include <string_view>

#include "tools/archiveview/facts/core_bytes.h"
#include "tools/archiveview/facts/core_libelf.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

constexpr size_t name_bytes = 16, arguments_bytes = 80;  // in the note of the process
constexpr size_t status_letter = 1;                      // likewise: the offset of its state

struct notes_reader {
    const core_machine& machine;
    core_budget* budget;
    core_notes notes;

    void add(unsigned type, std::span<const char> content);
    void add_thread(std::span<const char> content);
    void add_process(std::span<const char> content);
    void add_signal(std::span<const char> content);
    void add_auxiliary(std::span<const char> content);
    void add_files(std::span<const char> content);
    bool add_file(std::span<const char> row, uint64_t page, std::string_view path);
};

// The text at `offset`, up to its first NUL.
std::string text_at(std::span<const char> bytes, size_t offset, size_t limit) {
    const std::string_view text(bytes.data() + offset, std::min(limit, bytes.size() - offset));
    return std::string(text.substr(0, text.find('\0')));
}

void notes_reader::add_thread(std::span<const char> content) {
    if (content.size() < machine.status_bytes) {
        notes.damage = "has notes of a wrong size";
        return;
    }
    if (notes.threads.size() == thread_limit || budget->threads == 0) {
        notes.damage = "has more threads than are read";
        return;
    }
    budget->threads--;
    noted_thread thread;
    thread.signal = value_at<int16_t>(content, machine.status_signal);
    thread.tid = value_at<int32_t>(content, machine.status_tid);
    thread.has_floats = value_at<int32_t>(content, machine.status_has_floats) != 0;
    for (size_t i = 0; i < machine.register_count; i++) {
        thread.registers[i] =
            word_at(content, machine.status_registers + i * machine.word_bytes, machine.word_bytes);
    }
    notes.threads.push_back(thread);
}

void notes_reader::add_process(std::span<const char> content) {
    if (content.size() < machine.process_bytes) {
        notes.damage = "has notes of a wrong size";
        return;
    }
    const char letter = content[status_letter];
    notes.state = std::string_view("RSDTtZXxKWPI").find(letter) != std::string_view::npos ? letter : '?';
    notes.pid = value_at<int32_t>(content, machine.process_pid);
    notes.name = text_at(content, machine.process_name, name_bytes);
    notes.arguments = trimmed(text_at(content, machine.process_arguments, arguments_bytes));
}

void notes_reader::add_signal(std::span<const char> content) {
    notes.signal = value_at<int32_t>(content, 0);
    if (std::ranges::find(machine.fault_signals, notes.signal) != std::end(machine.fault_signals)) {
        notes.fault_address = word_at(content, machine.fault_address, machine.word_bytes);
    }
}

void notes_reader::add_auxiliary(std::span<const char> content) {
    const size_t word = machine.word_bytes;
    for (size_t at = 0; has_range(content, at, 2 * word); at += 2 * word) {
        const uint64_t value = word_at(content, at + word, word);
        switch (word_at(content, at, word)) {
            case AT_ENTRY:
                notes.entry = value;
                break;
            case AT_SYSINFO_EHDR:
                notes.vdso = value;
                break;
            default:
                break;
        }
    }
}

// Joins it to the file before, if it continues that one. False if there is no space for more.
bool notes_reader::add_file(std::span<const char> row, uint64_t page, std::string_view path) {
    const size_t word = machine.word_bytes;
    const uint64_t start = word_at(row, 0, word), end = word_at(row, word, word);
    const uint64_t offset = word_at(row, 2 * word, word) * page;
    if (!notes.files.empty()) {
        core_file& last = notes.files.back();
        if (last.end == start && last.path == path && offset - last.offset == start - last.start) {
            last.end = std::max(start, end);
            return true;
        }
    }
    const size_t cost = sizeof(core_file) + path.size();
    if (notes.files.size() == mapping_limit || cost > budget->mapping_bytes) {
        return false;
    }
    budget->mapping_bytes -= cost;
    notes.files.push_back({start, std::max(start, end), offset, std::string(path), ""});
    return true;
}

// The note has the number of files, the size of a page, three words for each file, then the paths.
void notes_reader::add_files(std::span<const char> content) {
    const size_t word = machine.word_bytes, row_bytes = 3 * word;
    if (content.size() < 2 * word || !notes.files.empty()) {
        return;
    }
    const std::span<const char> rows = content.subspan(2 * word);
    const uint64_t page = word_at(content, word, word);
    const uint64_t count = std::min<uint64_t>(word_at(content, 0, word), rows.size() / row_bytes);
    const auto names = rows.subspan(static_cast<size_t>(count) * row_bytes);
    std::string_view paths(names.data(), names.size());
    for (size_t i = 0; i < count && !paths.empty(); i++) {
        const size_t length = std::min(paths.find('\0'), paths.size());
        const std::string_view path = paths.substr(0, std::min(length, name_limit));
        if (!add_file(rows.subspan(i * row_bytes, row_bytes), page, path)) {
            notes.damage = "has more mappings than are read";
            break;
        }
        paths.remove_prefix(std::min(length + 1, paths.size()));
    }
    std::ranges::stable_sort(notes.files, {}, &core_file::start);
}

void notes_reader::add(unsigned type, std::span<const char> content) {
    switch (type) {
        case NT_PRSTATUS:
            return add_thread(content);
        case NT_PRPSINFO:
            return add_process(content);
        case NT_SIGINFO:
            return add_signal(content);
        case NT_AUXV:
            return add_auxiliary(content);
        case NT_FILE:
            return add_files(content);
        default:
            return;
    }
}

void read_range(notes_reader* reader, Elf* elf, std::span<const char> kept, const core_range& range) {
    const uint64_t end = std::min<uint64_t>(range.end, kept.size());
    if (range.start >= end) {
        return;
    }
    Elf_Data* data =
        elf_getdata_rawchunk(elf, static_cast<int64_t>(range.start), end - range.start, ELF_T_NHDR);
    if (!data) {
        reader->notes.damage = "has notes that could not be read";
        return;
    }
    GElf_Nhdr head;
    size_t name = 0, content = 0, at = 0;
    const std::string_view bytes(static_cast<const char*>(data->d_buf), data->d_size);
    while (at < bytes.size()) {
        const size_t next = gelf_getnote(data, at, &head, &name, &content);
        if (next == 0) {
            reader->notes.damage = "has notes that are cut or wrong";
            return;
        }
        if (bytes.substr(name, head.n_namesz).starts_with("CORE")) {
            reader->add(head.n_type, std::span(bytes.data(), bytes.size()).subspan(content, head.n_descsz));
        }
        at = next;
    }
}

}  // namespace

core_notes core_notes_read(std::span<const char> kept, const core_head& head, const core_machine& machine,
                           core_budget* budget) {
    notes_reader reader = {.machine = machine, .budget = budget, .notes = {}};
    const elf_handle elf = elf_of(kept);
    if (!elf) {
        reader.notes.damage = "has headers that could not be read";
        return std::move(reader.notes);
    }
    for (const core_range& range : head.notes) {
        read_range(&reader, elf.get(), kept, range);
    }
    if (head.notes_end > kept.size() && reader.notes.damage.empty()) {
        reader.notes.damage = "has notes that are cut";
    }
    return std::move(reader.notes);
}

}  // namespace archiveview
