// Opens bytes in memory with libelf.
#pragma once

#include <libelf.h>

#include <memory>
#include <span>

namespace archiveview {

struct elf_closer {
    void operator()(Elf* elf) const { elf_end(elf); }
};
using elf_handle = std::unique_ptr<Elf, elf_closer>;

// Empty if these are not the bytes of an ELF file. The library only reads them, although it takes them as its
// own. They must stay as long as the handle.
inline elf_handle elf_of(std::span<const char> bytes) {
    elf_version(EV_CURRENT);
    return elf_handle(elf_memory(const_cast<char*>(bytes.data()), bytes.size()));
}

}  // namespace archiveview
