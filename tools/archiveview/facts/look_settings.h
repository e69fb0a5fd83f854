// The settings of the kernel, in /proc/sys.
#pragma once

#include <string_view>

#include "tools/archiveview/facts/look.h"

namespace archiveview {

// Keeps the text of a setting; runs of blanks in it become one space. A text without its newline is not kept.
// Returns false if the text is too long for a setting.
bool look_read_setting(look* l, std::string_view name, std::string_view text);

// Why this file of /proc/sys changes without anybody setting it; empty if it does not.
std::string_view look_own_change_reason(std::string_view name);

}  // namespace archiveview
