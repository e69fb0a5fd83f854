// Joins the facts of all members, after the last one was read.
#pragma once

#include <stddef.h>

#include <array>
#include <optional>
#include <string_view>

#include "tools/archiveview/facts/archive_facts.h"
#include "tools/archiveview/facts/manifest.h"

namespace archiveview {

// What is known of the time between looks.
struct look_times {
    std::array<std::optional<size_t>, 2>
        process_looks;               // number of the first member of each look at processes
    bool has_manifest_list = false;  // the manifest's list is right
};

// True if a file of /proc/net is a table of sockets.
bool is_socket_table(std::string_view file);

// `manifest` is null if there is none.
void join_facts(archive_facts* facts, const manifest_facts* manifest, const look_times& times);

}  // namespace archiveview
