#include "tools/archiveview/facts/core_files.h"

#include <elfutils/libdwelf.h>

#include <algorithm>

#include "tools/archiveview/facts/core_bytes.h"
#include "tools/archiveview/facts/core_libelf.h"

namespace archiveview {
namespace {

constexpr size_t first_pages_limit = 1024;  // of one core
constexpr uint64_t vdso_bytes = uint64_t{2} * 4096;

}  // namespace

core_files_view::core_files_view(const std::vector<core_file>& files, uint64_t vdso)
    : files_(files), vdso_(vdso) {
    bases_.reserve(files.size());
    for (size_t i = 0; i < files.size(); i++) {
        const bool continues =
            i > 0 && files[i].path == files[i - 1].path && files[i].offset > files[i - 1].offset;
        bases_.push_back(continues ? bases_.back() : files[i].start);
    }
}

const core_file* core_files_view::find(uint64_t address) const {
    auto after = std::ranges::upper_bound(files_, address, {}, &core_file::start);
    if (after == files_.begin() || address >= std::prev(after)->end) {
        return nullptr;
    }
    return &*std::prev(after);
}

std::string core_files_view::place(uint64_t address) const {
    if (const core_file* file = find(address)) {
        const uint64_t base = bases_[static_cast<size_t>(file - files_.data())];
        return file->path.substr(file->path.rfind('/') + 1) + "+" + hexadecimal(address - base);
    }
    if (vdso_ != 0 && address >= vdso_ && address - vdso_ < vdso_bytes) {
        return "[vdso]+" + hexadecimal(address - vdso_);
    }
    return hexadecimal(address);
}

std::string core_build_id(std::span<const char> beginning) {
    if (!std::string_view(beginning.data(), beginning.size()).starts_with(ELFMAG)) {
        return {};
    }
    const elf_handle elf = elf_of(beginning);
    const void* id = nullptr;
    const ssize_t length = elf ? dwelf_elf_gnu_build_id(elf.get(), &id) : -1;
    std::string text;
    for (ssize_t i = 0; i < length; i++) {
        const auto byte = static_cast<const unsigned char*>(id)[i];
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
    }
    return text;
}

void core_files_want(const core_notes& notes, core_memory* memory) {
    size_t pages = 0;
    for (const core_file& file : notes.files) {
        if (file.offset == 0 && pages++ < first_pages_limit) {
            memory->want(file.start, build_id_bytes);
        }
    }
}

void core_files_read(const core_memory& memory, std::vector<core_file>* files) {
    for (size_t i = 0; i < files->size(); i++) {
        core_file& file = (*files)[i];
        if (file.offset == 0) {
            file.build_id = core_build_id(memory.at(file.start));
        } else if (i > 0 && (*files)[i - 1].path == file.path) {
            file.build_id = (*files)[i - 1].build_id;
        }
    }
}

}  // namespace archiveview
