// All facts and findings as JSON. The manual archiveview(1) has the schema.
#pragma once

#include <string>
#include <vector>

#include "tools/archiveview/findings/findings.h"

namespace archiveview {

struct json_section {
    std::string name;  // a key of the top level: "archive", "device", "changes", "processes", ...
    std::string json;  // its value
};

// The sections in the order of the page.
std::vector<json_section> json_sections(const archive_facts& facts, const std::vector<finding>& findings);

// One object of all sections, with a newline at its end.
std::string json_view(const archive_facts& facts, const std::vector<finding>& findings);

}  // namespace archiveview
