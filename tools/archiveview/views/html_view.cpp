#include "tools/archiveview/views/html_view.h"

namespace archiveview {

std::string html_view(const archive_facts& /*facts*/, const std::vector<finding>& /*findings*/,
                      const std::string& /*title*/) {
    return {};
}

}  // namespace archiveview
