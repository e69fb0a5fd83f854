// Whether an archive is whole, cut or damaged.
#pragma once

#include <vector>

#include "tools/archiveview/facts/archive_summary.h"
#include "tools/archiveview/facts/manifest.h"
#include "tools/archiveview/order.h"
#include "tools/archiveview/source/archive_source.h"

namespace archiveview {

struct stored_member {
    std::string name;  // without the archive's top directory
    uint64_t bytes = 0;
};

// What was found while the archive was read.
struct archive_evidence {
    const source_state* source;
    const member_order* order;
    const std::vector<stored_member>* members;
    const manifest_facts* manifest;    // null: there is none, or it is cut
    bool has_other_directory = false;  // not all members are in one top directory
};

// Fills in the state, the reason, and what is cut and missing.
void set_verdict(archive_summary* summary, const archive_evidence& evidence);

}  // namespace archiveview
