// The headers of a core: which machine it is of, and where its notes and its memory are.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <vector>

namespace archiveview {

// Memory of the process that the core has. Ranges without content are left out.
struct core_segment {
    uint64_t address = 0;
    uint64_t offset = 0;  // in the file
    uint64_t size = 0;    // of the content
};

struct core_range {
    uint64_t start = 0, end = 0;
};

struct core_head {
    bool is_64 = false;
    unsigned machine = 0;  // an EM_ number of elf.h
    std::vector<core_segment> segments;
    std::vector<core_range> notes;       // offsets in the file
    std::vector<core_range> executable;  // addresses, in order
    uint64_t notes_end = 0;              // the end of the last notes, in the file
    uint64_t length = 0;                 // of the file, as its headers say
};

// How many bytes of the file are needed to read its headers, judged by those that are there; at least one
// more than there are, unless they are enough.
uint64_t core_headers_size(std::span<const char> bytes);

// Reads the headers. Returns an empty string, or why this is not a core that can be read.
std::string core_head_read(std::span<const char> bytes, core_head* head);

}  // namespace archiveview
