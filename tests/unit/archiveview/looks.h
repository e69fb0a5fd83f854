// Looks at /proc, for tests.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "tools/archiveview/facts/look.h"

// A look with these files: name and text.
inline archiveview::look look_of(const std::vector<std::pair<std::string_view, std::string_view>>& files) {
    archiveview::look l;
    for (const auto& [name, text] : files) {
        look_add(&l, name, text);
    }
    return l;
}
