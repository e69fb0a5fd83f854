#include "tools/dcore/layout.h"

#include <string.h>

#include <algorithm>

namespace {

constexpr uint64_t mapping_mark = 8;
static_assert((mapping_mark & (PF_R | PF_W | PF_X)) == 0);

// Joins `next` to `*last` if both are in one mapping and the gap between their contents is small.
bool join(core_segment* last, const core_segment& next, uint64_t gap) {
    if (next.begins_mapping() || next.start() - (last->start() + last->content) > gap) {
        return false;
    }
    last->content = next.start() + next.content - last->start();
    last->end = next.end;
    return true;
}

void join_neighbours(core_layout* layout) {
    size_t kept = 0;
    for (const core_segment& segment : layout->segments) {
        if (kept == 0 || !join(&layout->segments[kept - 1], segment, layout->merge_gap)) {
            layout->segments[kept++] = segment;
        }
    }
    layout->segments.resize(kept);
}

bool has_too_many(const core_layout& layout) {
    return layout.segments.size() > layout.mappings + layout.spare_segments;
}

uint64_t headers_length(const core_layout& layout) {
    return sizeof(core_ehdr) + (layout.segments.size() + 1) * sizeof(core_phdr);
}

bool needs_section(const core_layout& layout) {
    return layout.segments.size() + 1 >= PN_XNUM;
}

}  // namespace

core_layout layout_new(uint64_t page) {
    core_layout layout;
    layout.page = page;
    return layout;
}

void layout_add_mapping(core_layout* layout, uint64_t start, uint64_t end, unsigned flags) {
    layout->mappings++;
    layout->segments.push_back({start | flags | mapping_mark, end, 0});
}

void layout_add_content(core_layout* layout, uint64_t from, uint64_t to) {
    core_segment& last = layout->segments.back();
    core_segment fresh = {from | last.flags(), last.end, to - from};
    bool at_start = last.content == 0 && from == last.start();
    if (at_start || join(&last, fresh, layout->merge_gap)) {
        last.content = to - last.start();
        return;
    }
    last.end = from;
    layout->segments.push_back(fresh);
    while (has_too_many(*layout)) {
        layout->merge_gap = std::max(layout->page, layout->merge_gap * 2);
        join_neighbours(layout);
    }
}

void layout_add_file(core_layout* layout, uint64_t start, uint64_t end, uint64_t offset,
                     std::string_view name) {
    // Neighbours are usually mappings of the same file and share its name.
    size_t at = layout->names.size();
    if (!layout->files.empty()) {
        const core_file_mapping& last = layout->files.back();
        if (std::string_view(layout->names).substr(last.name, last.name_length) == name) {
            at = last.name;
        }
    }
    if (at == layout->names.size()) {
        layout->names += name;
    }
    layout->files.push_back({start, end, offset / layout->page, at, name.size()});
}

core_places layout_places(const core_layout& layout, uint64_t notes_length) {
    core_places places;
    places.notes = headers_length(layout);
    places.notes_length = notes_length;
    places.content = (places.notes + notes_length + layout.page - 1) / layout.page * layout.page;
    places.length = places.content;
    for (const core_segment& segment : layout.segments) {
        places.length += segment.content;
    }
    if (needs_section(layout)) {
        places.section = places.length;
        places.length += sizeof(core_shdr);
    }
    return places;
}

core_ehdr layout_ehdr(const core_layout& layout, const core_places& places) {
    core_ehdr head = {};
    memcpy(head.e_ident, ELFMAG, SELFMAG);
    head.e_ident[EI_CLASS] = core_is_64 ? ELFCLASS64 : ELFCLASS32;
    head.e_ident[EI_DATA] = ELFDATA2LSB;
    head.e_ident[EI_VERSION] = EV_CURRENT;
    head.e_type = ET_CORE;
    head.e_machine = arch_elf_machine;
    head.e_version = EV_CURRENT;
    head.e_phoff = sizeof head;
    head.e_flags = arch_elf_flags;
    head.e_ehsize = sizeof head;
    head.e_phentsize = sizeof(core_phdr);
    head.e_phnum = static_cast<Elf32_Half>(needs_section(layout) ? PN_XNUM : layout.segments.size() + 1);
    if (needs_section(layout)) {
        head.e_shoff = static_cast<decltype(head.e_shoff)>(places.section);
        head.e_shentsize = sizeof(core_shdr);
        head.e_shnum = 1;
    }
    return head;
}

core_phdr layout_notes_phdr(const core_places& places) {
    core_phdr head = {};
    head.p_type = PT_NOTE;
    head.p_offset = static_cast<decltype(head.p_offset)>(places.notes);
    head.p_filesz = static_cast<decltype(head.p_filesz)>(places.notes_length);
    head.p_align = 4;
    return head;
}

core_phdr layout_phdr(const core_layout& layout, const core_segment& segment, uint64_t offset) {
    core_phdr head = {};
    head.p_type = PT_LOAD;
    head.p_flags = segment.flags();
    head.p_offset = static_cast<decltype(head.p_offset)>(offset);
    head.p_vaddr = static_cast<decltype(head.p_vaddr)>(segment.start());
    head.p_filesz = static_cast<decltype(head.p_filesz)>(segment.content);
    head.p_memsz = static_cast<decltype(head.p_memsz)>(segment.end - segment.start());
    head.p_align = static_cast<decltype(head.p_align)>(layout.page);
    return head;
}

core_shdr layout_shdr(const core_layout& layout) {
    core_shdr head = {};
    head.sh_type = SHT_NULL;
    head.sh_size = 1;
    head.sh_info = static_cast<Elf32_Word>(layout.segments.size() + 1);
    return head;
}
