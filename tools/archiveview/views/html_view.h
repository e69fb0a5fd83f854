// A page that works offline: the sections of the JSON, compressed, and a script that shows them.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

// `title` is shown as the page's name, such as the archive's file name.
std::string html_view(const archive_facts& facts, const std::vector<finding>& findings,
                      const std::string& title);

}  // namespace archiveview
