// Files of this machine that are those of a core: the same name and the same build id.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "tools/archiveview/facts/core.h"

namespace archiveview {

struct local_file {
    unique_fd file;
    uint64_t base = 0;  // what is added to the file's addresses in the process
    std::string path;   // the name in the core
};

// Opens the programs and libraries of a core that one of the folders has, below the name in the core or
// directly.
std::vector<local_file> core_local_files(const core_facts& core, const std::vector<std::string>& folders);

}  // namespace archiveview
