#include "tools/archiveview/facts/core_local.h"

#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <set>

#include "tools/archiveview/facts/core_files.h"
#include "tools/archiveview/facts/core_libelf.h"

namespace archiveview {
namespace {

constexpr size_t files_limit = 256;  // of one core
constexpr uint64_t page_mask = 4096 - 1;

// The address that the file's first loaded byte has in the file itself.
uint64_t first_address(std::span<const char> beginning) {
    const elf_handle elf = elf_of(beginning);
    size_t count = 0;
    if (!elf || elf_getphdrnum(elf.get(), &count) != 0) {
        return 0;
    }
    for (size_t i = 0; i < count; i++) {
        GElf_Phdr segment;
        if (gelf_getphdr(elf.get(), static_cast<int>(i), &segment) && segment.p_type == PT_LOAD) {
            return segment.p_vaddr & ~page_mask;
        }
    }
    return 0;
}

// Opens a file if it has the build id. Waits for nothing: a file that is not a regular one is left alone.
bool open_if_same(const std::string& path, const core_file& wanted, local_file* found) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    std::array<char, build_id_bytes> bytes;
    const ssize_t length = pread(file.get(), bytes.data(), bytes.size(), 0);
    if (length <= 0) {
        return false;
    }
    const std::span<const char> beginning(bytes.data(), static_cast<size_t>(length));
    if (core_build_id(beginning) != wanted.build_id) {
        return false;
    }
    *found = {std::move(file), wanted.start - first_address(beginning), wanted.path};
    return true;
}

}  // namespace

std::vector<local_file> core_local_files(const core_facts& core, const std::vector<std::string>& folders) {
    std::vector<local_file> all;
    std::set<std::string> seen;
    for (const core_file& file : core.files) {
        if (file.offset != 0 || file.build_id.empty() || !file.path.starts_with('/') ||
            all.size() == files_limit || !seen.insert(file.path).second) {
            continue;
        }
        for (const std::string& folder : folders) {
            local_file found;
            if (open_if_same(folder + file.path, file, &found) ||
                open_if_same(folder + file.path.substr(file.path.rfind('/')), file, &found)) {
                all.push_back(std::move(found));
                break;
            }
        }
    }
    return all;
}

}  // namespace archiveview
