// Runs a debugger on a core.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "tools/archiveview/facts/core_local.h"

namespace archiveview {

// The path of the debugger, or empty if it is not installed.
std::string debugger_path();

// What the debugger prints about the stacks of a core, at most stack_text_limit bytes. It is killed after
// `limit_ms`. Takes nothing from the network, and no program or library but `files`.
std::string debugger_stacks(const std::string& debugger, int core, const std::vector<local_file>& files,
                            const std::vector<std::string>& folders, int64_t limit_ms);

}  // namespace archiveview
