// Lines as the kernel writes them to its log.
#pragma once

#include <string_view>

#include "tools/archiveview/facts/kernel.h"

namespace archiveview {

// "<4>[  311.920044] text" or a part of that: the level, the time and the thread or processor in brackets may
// be missing.
log_line log_line_parse(std::string_view line);

}  // namespace archiveview
