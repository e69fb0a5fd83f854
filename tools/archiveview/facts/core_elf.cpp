#include "tools/archiveview/facts/core_elf.h"

#include <elf.h>
#include <string.h>

#include <algorithm>

#include "tools/archiveview/facts/core_bytes.h"
#include "tools/archiveview/limits.h"

namespace archiveview {
namespace {

struct elf_64 {
    using header = Elf64_Ehdr;
    using segment = Elf64_Phdr;
};
struct elf_32 {
    using header = Elf32_Ehdr;
    using segment = Elf32_Phdr;
};

bool is_wide(std::span<const char> bytes) {
    return bytes.size() > EI_CLASS && bytes[EI_CLASS] == ELFCLASS64;
}

// A header of the file counts up to PN_XNUM segments. With more, their number stands at the end of the file.
// Their headers end where the notes begin, which the first of them tells.
template <typename Elf>
uint64_t segment_count(std::span<const char> bytes) {
    const auto header = value_at<typename Elf::header>(bytes, 0);
    if (header.e_phnum != PN_XNUM) {
        return header.e_phnum;
    }
    const auto first = value_at<typename Elf::segment>(bytes, header.e_phoff);
    const bool follows = first.p_type == PT_NOTE && first.p_offset > header.e_phoff;
    return follows ? std::max<uint64_t>((first.p_offset - header.e_phoff) / sizeof first, 1) : 1;
}

template <typename Elf>
uint64_t headers_size(std::span<const char> bytes) {
    if (bytes.size() < sizeof(typename Elf::header)) {
        return sizeof(typename Elf::header);
    }
    const auto header = value_at<typename Elf::header>(bytes, 0);
    const uint64_t first = end_of(header.e_phoff, sizeof(typename Elf::segment));
    if (header.e_phnum == PN_XNUM && bytes.size() < first) {
        return first;
    }
    return end_of(header.e_phoff, segment_count<Elf>(bytes) * sizeof(typename Elf::segment));
}

std::string refusal(const Elf32_Ehdr& header) {
    if (header.e_type != ET_CORE) {
        return "is an ELF file, but not a core";
    }
    const bool is_known = (header.e_machine == EM_X86_64 && header.e_ident[EI_CLASS] == ELFCLASS64) ||
                          (header.e_machine == EM_MIPS && header.e_ident[EI_CLASS] == ELFCLASS32);
    return is_known ? ""
                    : "is a core of another machine (ELF machine " + std::to_string(header.e_machine) + ")";
}

template <typename Segment>
void add_segment(const Segment& segment, core_head* head) {
    const uint64_t end = end_of(segment.p_offset, segment.p_filesz);
    head->length = std::max(head->length, end);
    if (segment.p_type == PT_NOTE) {
        head->notes.push_back({segment.p_offset, end});
        head->notes_end = std::max(head->notes_end, end);
    } else if (segment.p_type == PT_LOAD) {
        if (segment.p_filesz > 0) {
            head->segments.push_back({segment.p_vaddr, segment.p_offset, segment.p_filesz});
        }
        if ((segment.p_flags & PF_X) != 0) {
            head->executable.push_back({segment.p_vaddr, end_of(segment.p_vaddr, segment.p_memsz)});
        }
    }
}

template <typename Elf>
std::string read_segments(std::span<const char> bytes, core_head* head) {
    const auto header = value_at<typename Elf::header>(bytes, 0);
    using segment = typename Elf::segment;
    if (header.e_phnum > 0 && header.e_phentsize != sizeof(segment)) {
        return "has program headers of a wrong size";
    }
    const uint64_t count = segment_count<Elf>(bytes);
    for (uint64_t i = 0; i < count; i++) {
        const uint64_t offset = end_of(header.e_phoff, i * sizeof(segment));
        if (!has_range(bytes, offset, sizeof(segment))) {
            break;
        }
        add_segment(value_at<segment>(bytes, offset), head);
    }
    std::ranges::sort(head->executable, {}, &core_range::start);
    return head->notes.empty() ? "has no notes" : "";
}

}  // namespace

uint64_t core_headers_size(std::span<const char> bytes) {
    if (bytes.size() < EI_NIDENT) {
        return EI_NIDENT;
    }
    return is_wide(bytes) ? headers_size<elf_64>(bytes) : headers_size<elf_32>(bytes);
}

std::string core_head_read(std::span<const char> bytes, core_head* head) {
    if (bytes.empty()) {
        return "is empty";
    }
    if (memcmp(bytes.data(), ELFMAG, std::min<size_t>(bytes.size(), SELFMAG)) != 0) {
        return "is not an ELF file";
    }
    if (bytes.size() < sizeof(Elf32_Ehdr)) {
        return "ends in its first header";
    }
    if (bytes[EI_DATA] != ELFDATA2LSB) {
        return "is of a big-endian machine";
    }
    // The fields that decide are at the same place in both kinds of header.
    const auto header = value_at<Elf32_Ehdr>(bytes, 0);
    if (std::string wrong = refusal(header); !wrong.empty()) {
        return wrong;
    }
    head->is_64 = is_wide(bytes);
    head->machine = header.e_machine;
    return head->is_64 ? read_segments<elf_64>(bytes, head) : read_segments<elf_32>(bytes, head);
}

}  // namespace archiveview
