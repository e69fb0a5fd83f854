// Reads any bytes as a configuration file: each entry is complete, its key is valid, and there are no more
// entries than lines.
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "platform/mirnel.h"
#include "tests/fuzz/require.h"

namespace {

// A key is one line without blanks at its ends, and not a comment or a section.
bool is_key(const std::string& key) {
    return !key.empty() && key.find_first_of("=\n") == std::string::npos &&
           key.find_first_of(" \t\r\v\f") != 0 && key.find_last_of(" \t\r\v\f") + 1 != key.size() &&
           key.find_first_of("#;[") != 0;
}

bool is_section(const std::string& section) {
    return section.find_first_of("]\n") == std::string::npos;
}

void check_entry(const mirnel_entry& entry, const std::string& file) {
    require(entry.section != nullptr && entry.key != nullptr && entry.value != nullptr);
    require(is_key(entry.key) && is_section(entry.section));
    for (const char* text : {entry.section, entry.key, entry.value}) {
        require(file.find(text) != std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string file(reinterpret_cast<const char*>(data), size);
    int fd = memfd_create("config", MFD_CLOEXEC);
    require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    mirnel_cfg* cfg = mirnel_opencfg(("/proc/self/fd/" + std::to_string(fd)).c_str());
    require(cfg != nullptr);

    size_t lines = 1 + static_cast<size_t>(std::count(file.begin(), file.end(), '\n'));
    size_t entries = 0;
    mirnel_entry entry = {nullptr, nullptr, nullptr};
    while (mirnel_getcfg(cfg, &entry) == 1) {
        check_entry(entry, file);
        entry = {nullptr, nullptr, nullptr};
        require(++entries <= lines);
    }
    require(mirnel_getcfg(cfg, &entry) == 0);
    mirnel_closecfg(cfg);
    close(fd);
    return 0;
}
