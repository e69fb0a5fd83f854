// The plan of a core file: its segments, the part of each that has content, and the length of the file.
//
// The file consists of the ELF header, the program headers, the notes and, from a page boundary on, the
// content of one segment after the other. Layout: elf(5).
#pragma once

#include <elf.h>
#include <stdint.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "tools/dcore/arch.h"

#if defined(__LP64__)
using core_ehdr = Elf64_Ehdr;
using core_phdr = Elf64_Phdr;
using core_shdr = Elf64_Shdr;
using core_nhdr = Elf64_Nhdr;
#else
using core_ehdr = Elf32_Ehdr;
using core_phdr = Elf32_Phdr;
using core_shdr = Elf32_Shdr;
using core_nhdr = Elf32_Nhdr;
#endif

// A range of one mapping: first bytes with content, then bytes without. There may be very many segments, so
// the fields are packed.
struct core_segment {
    uint64_t start_and_flags;  // low bits: PF_ bits, and 8 if a mapping begins here
    uint64_t end;
    uint64_t content;  // bytes

    uint64_t start() const { return start_and_flags & ~0xfffull; }
    unsigned flags() const { return start_and_flags & (PF_R | PF_W | PF_X); }
    bool begins_mapping() const { return start_and_flags & 8; }
};

// A mapping of a file, for the list of mapped files.
struct core_file_mapping {
    uint64_t start, end, offset_pages;
    size_t name, name_length;  // in core_layout::names
};

struct core_layout {
    size_t spare_segments = 16384;  // allowed beyond one for each mapping; see layout_add_content
    uint64_t page;                  // bytes
    uint64_t merge_gap = 0;         // gaps of up to this length count as content
    size_t mappings = 0;
    std::deque<core_segment> segments;
    std::deque<core_file_mapping> files;
    std::string names;  // without NULs between them
};

core_layout layout_new(uint64_t page);

// Adds a mapping without content. Mappings must be added in the order of their addresses. `flags` are PF_
// bits.
void layout_add_mapping(core_layout* layout, uint64_t start, uint64_t end, unsigned flags);

// Adds content to the last mapping. Ranges must be added in order. When there are too many segments, joins
// neighbours; the gap between them then counts as content.
void layout_add_content(core_layout* layout, uint64_t from, uint64_t to);

// Adds a mapping to the list of mapped files.
void layout_add_file(core_layout* layout, uint64_t start, uint64_t end, uint64_t offset,
                     std::string_view name);

// Offsets in the file, in bytes.
struct core_places {
    uint64_t notes = 0;
    uint64_t notes_length = 0;
    uint64_t content = 0;
    uint64_t section = 0;  // the section header with the number of program headers; 0: none
    uint64_t length = 0;   // of the whole file
};
core_places layout_places(const core_layout& layout, uint64_t notes_length);

core_ehdr layout_ehdr(const core_layout& layout, const core_places& places);
core_phdr layout_notes_phdr(const core_places& places);
// `offset` is that of the segment's content in the file.
core_phdr layout_phdr(const core_layout& layout, const core_segment& segment, uint64_t offset);
// The header at places.section, which is needed if the ELF header cannot count the program headers.
core_shdr layout_shdr(const core_layout& layout);
