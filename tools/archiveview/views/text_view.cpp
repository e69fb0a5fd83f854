#include "tools/archiveview/views/text_view.h"

namespace archiveview {

std::string text_view(const archive_facts& /*facts*/, const std::vector<finding>& /*findings*/) {
    return {};
}

}  // namespace archiveview
