// Which findings explain which.
#pragma once

#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

// Removes the findings that another, not less severe one of the same process explains, and adds their texts
// to its evidence. `findings` are in order, the most severe first.
void drop_consequences(std::vector<finding>* findings);

}  // namespace archiveview
