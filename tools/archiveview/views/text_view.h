// The verdict and the findings as text, at most 40 lines.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

std::string text_view(const archive_facts& facts, const std::vector<finding>& findings);

}  // namespace archiveview
