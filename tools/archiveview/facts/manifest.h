// The manifest, the last member of a full archive: a list of all others.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/archive_summary.h"

namespace archiveview {

struct manifest_member {
    std::string name;  // without the archive's top directory
    uint64_t bytes = 0;
    double seconds = 0;  // that the daemon needed for it
};

struct manifest_facts {
    bool is_complete = false;   // its last line says so
    bool is_list_whole = true;  // the daemon could keep the list
    std::string started;        // "2026-11-22 16:11:32"
    uint64_t members = 0;       // as its sum says
    uint64_t bytes = 0;
    std::vector<manifest_member> list;
    std::vector<named_text> errors;  // members that the device could not store, and why
};

manifest_facts manifest_parse(std::string_view text);

}  // namespace archiveview
