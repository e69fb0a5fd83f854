// Builds cores by hand.
#pragma once

#include <elf.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_machine.h"

namespace archiveview::core_test {

constexpr uint64_t page = 4096;
constexpr unsigned x86_rdi = 14, x86_rsi = 13, x86_rdx = 12, x86_r10 = 7, x86_rax = 10, x86_number = 15,
                   x86_cs = 17, x86_fs = 21;
constexpr unsigned mips_v0 = 8, mips_a0 = 10, mips_a1 = 11, mips_a2 = 12, mips_a3 = 13;

struct test_thread {
    int tid = 0;
    std::map<unsigned, uint64_t> registers;
    int signal = 0;
    bool has_floats = true;
};

struct test_file {
    uint64_t start = 0, end = 0, offset_pages = 0;
    std::string path;
};

template <typename Value>
void put(std::string* bytes, size_t offset, Value value) {
    memcpy(bytes->data() + offset, &value, sizeof value);
}

template <typename Header, typename Segment>
Header header_of(unsigned char kind, size_t segments) {
    Header header = {};
    memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = kind;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_version = EV_CURRENT;
    header.e_phoff = header.e_ehsize = sizeof header;
    header.e_phentsize = sizeof(Segment);
    header.e_phnum = static_cast<Elf32_Half>(segments);
    return header;
}

// A core of one machine. Memory is added by address; each range becomes a segment.
struct test_core {
    explicit test_core(unsigned number) : machine(*core_machine_find(number)) {}

    const core_machine& machine;
    std::vector<test_thread> threads;
    std::vector<test_file> files;
    std::map<uint64_t, std::string> memory;
    std::map<uint64_t, uint64_t> auxiliary;
    char state = 'S';
    std::string more_notes;

    void put_word(std::string* bytes, size_t offset, uint64_t value) const {
        if (machine.word_bytes == 8) {
            put(bytes, offset, value);
        } else {
            put(bytes, offset, static_cast<uint32_t>(value));
        }
    }
    std::string word(uint64_t value) const {
        std::string bytes(machine.word_bytes, '\0');
        put_word(&bytes, 0, value);
        return bytes;
    }
    static std::string note(uint32_t type, std::string content) {
        std::string bytes(12, '\0');
        put(&bytes, 0, uint32_t{5});
        put(&bytes, 4, static_cast<uint32_t>(content.size()));
        put(&bytes, 8, type);
        content.resize((content.size() + 3) / 4 * 4);
        return bytes + std::string("CORE\0\0\0\0", 8) + content;
    }
    std::string status(const test_thread& thread) const {
        std::string bytes(machine.status_bytes, '\0');
        put(&bytes, machine.status_signal, static_cast<int16_t>(thread.signal));
        put(&bytes, machine.status_tid, thread.tid);
        put(&bytes, machine.status_has_floats, int{thread.has_floats});
        for (const auto& [index, value] : thread.registers) {
            put_word(&bytes, machine.status_registers + index * machine.word_bytes, value);
        }
        return note(NT_PRSTATUS, bytes);
    }
    std::string notes() const {
        std::string process(machine.process_bytes, '\0');
        process[1] = state;
        memcpy(process.data() + machine.process_name, "shown", 5);
        memcpy(process.data() + machine.process_arguments, "shown -x ", 9);
        std::string all, words, list = word(files.size()) + word(page);
        for (const test_thread& thread : threads) {
            all += status(thread);
        }
        for (const auto& [type, value] : auxiliary) {
            words += word(type) + word(value);
        }
        for (const test_file& file : files) {
            list += word(file.start) + word(file.end) + word(file.offset_pages);
        }
        for (const test_file& file : files) {
            list += file.path + '\0';
        }
        return all + note(NT_PRPSINFO, process) + note(NT_AUXV, words) + note(NT_FILE, list) + more_notes;
    }

    template <typename Header, typename Segment>
    std::string assemble(unsigned char kind) const {
        const std::string all_notes = notes();
        Header header = header_of<Header, Segment>(kind, memory.size() + 1);
        header.e_type = ET_CORE;
        header.e_machine = static_cast<Elf32_Half>(machine.number);
        Segment notes_segment = {};
        notes_segment.p_type = PT_NOTE;
        notes_segment.p_offset = sizeof header + header.e_phnum * sizeof(Segment);
        notes_segment.p_filesz = all_notes.size();
        notes_segment.p_align = 4;
        std::string bytes(reinterpret_cast<const char*>(&header), sizeof header), content;
        bytes.append(reinterpret_cast<const char*>(&notes_segment), sizeof notes_segment);
        const size_t begin = notes_segment.p_offset + all_notes.size();
        for (const auto& [address, text] : memory) {
            Segment segment = {};
            segment.p_type = PT_LOAD;
            segment.p_flags = PF_R | PF_W;
            segment.p_offset = begin + content.size();
            segment.p_vaddr = static_cast<decltype(segment.p_vaddr)>(address);
            segment.p_filesz = segment.p_memsz = text.size();
            content += text;
            bytes.append(reinterpret_cast<const char*>(&segment), sizeof segment);
        }
        return bytes + all_notes + content;
    }
    std::string bytes() const {
        return machine.word_bytes == 8 ? assemble<Elf64_Ehdr, Elf64_Phdr>(ELFCLASS64)
                                       : assemble<Elf32_Ehdr, Elf32_Phdr>(ELFCLASS32);
    }
};

// Reads a core that comes in pieces of `step` bytes; `size` is what the archive says.
inline core_facts read_pieces(std::string_view bytes, size_t step, uint64_t size) {
    core_options options;
    options.stacks = false;
    core_reader reader("debug-c0/shown.7/core", "shown", 7, size, options);
    for (size_t at = 0; at < bytes.size(); at += step) {
        const std::string_view piece = bytes.substr(at, step);
        reader.add({piece.data(), piece.size()});
    }
    return reader.finish();
}
inline core_facts read_core(const test_core& core) {
    const std::string bytes = core.bytes();
    return read_pieces(bytes, 1000, bytes.size());
}

// A thread of an x86-64 process in a system call.
inline test_thread in_call(int tid, uint64_t number, uint64_t first = 0, uint64_t second = 0,
                           uint64_t third = 0, uint64_t fourth = 0) {
    return {.tid = tid,
            .registers = {{x86_number, number},
                          {x86_rax, static_cast<uint64_t>(-512)},
                          {x86_cs, 0x33},
                          {x86_rdi, first},
                          {x86_rsi, second},
                          {x86_rdx, third},
                          {x86_r10, fourth}}};
}

// A thread of a MIPS process in a system call, whose number the registers do not have.
inline test_thread in_mips_call(int tid, uint64_t first, uint64_t second, uint64_t third,
                                uint64_t result = 512) {
    return {.tid = tid,
            .registers = {
                {mips_v0, result}, {mips_a0, first}, {mips_a1, second}, {mips_a2, third}, {mips_a3, 1}}};
}

}  // namespace archiveview::core_test
