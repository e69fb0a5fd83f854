// The files that a process has mapped.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <vector>

#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/facts/core_memory.h"
#include "tools/archiveview/facts/core_notes.h"

namespace archiveview {

// Finds mapped files by address. Borrows them; they are in the order of addresses. `vdso` is where the
// kernel's own page of functions is, or 0.
class core_files_view {
public:
    explicit core_files_view(const std::vector<core_file>& files, uint64_t vdso = 0);

    // The mapping that has this address, or null.
    const core_file* find(uint64_t address) const;

    // "libc.so.6+0x1234", counted from where the file's first mapping begins. An address outside of all files
    // is a number.
    std::string place(uint64_t address) const;

private:
    const std::vector<core_file>& files_;
    uint64_t vdso_;
    std::vector<uint64_t> bases_;  // for each mapping, where the first one of its file begins
};

// The GNU build id of an ELF file in hexadecimal, from its beginning; empty if it has none.
std::string core_build_id(std::span<const char> beginning);

// A file's first page tells its build id.
constexpr size_t build_id_bytes = 4096;

// Asks for the first pages of mapped files.
void core_files_want(const core_notes& notes, core_memory* memory);

// Fills in the build ids of files whose first pages were there.
void core_files_read(const core_memory& memory, std::vector<core_file>* files);

}  // namespace archiveview
