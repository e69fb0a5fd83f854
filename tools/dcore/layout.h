// The plan of a core file: which stretches of memory become segments, what of them has content, and so how
// long the file is.
//
// The file: ELF header, program headers, notes, then from a page boundary on the content of the segments, one
// behind the other. Layout: elf(5).
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

// A stretch of one mapping: content first, then a rest that has none. There may be very many, hence the
// packing.
struct core_segment {
    uint64_t start_and_flags;  // PF_ bits, and whether a mapping begins here, below the page
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
    size_t spare_segments = 16384;  // beyond one for each mapping; see layout_content
    uint64_t page;                  // bytes
    uint64_t merge_gap = 0;         // stretches without content up to this length are taken as content
    size_t mappings = 0;
    std::deque<core_segment> segments;
    std::deque<core_file_mapping> files;
    std::string names;  // not ended by a NUL each
};

core_layout layout_new(uint64_t page);

// Begins a mapping, for now without content; mappings come in the order of their addresses. `flags`: PF_
// bits.
void layout_mapping(core_layout& layout, uint64_t start, uint64_t end, unsigned flags);

// Gives a stretch of the mapping that was begun last content; stretches come in order. When memory is so
// scattered that the segments get too many, neighbours are joined and what lies between them counts as
// content.
void layout_content(core_layout& layout, uint64_t from, uint64_t to);

// Adds a mapping to the list of mapped files.
void layout_file(core_layout& layout, uint64_t start, uint64_t end, uint64_t offset, std::string_view name);

// Where things are in the file, in bytes from its beginning.
struct core_places {
    uint64_t notes = 0;
    uint64_t notes_length = 0;
    uint64_t content = 0;
    uint64_t section =
        0;                // the one section header, which says how many program headers there are; 0 for none
    uint64_t length = 0;  // of the whole file
};
core_places layout_places(const core_layout& layout, uint64_t notes_length);

core_ehdr layout_ehdr(const core_layout& layout, const core_places& places);
core_phdr layout_notes_phdr(const core_places& places);
// `offset`: of the segment's content in the file.
core_phdr layout_phdr(const core_layout& layout, const core_segment& segment, uint64_t offset);
// For places.section: more program headers than the ELF header can count.
core_shdr layout_shdr(const core_layout& layout);
