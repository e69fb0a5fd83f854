// What a report of the kernel says, in the order of its lines.
#pragma once

#include <string_view>

#include "tools/archiveview/facts/kernel.h"

namespace archiveview {

// Fills the record from its text. The place and the process are not taken from a last line that was cut,
// whose numbers may lack digits.
void oops_report_read(oops_record* record, std::string_view text);

}  // namespace archiveview
