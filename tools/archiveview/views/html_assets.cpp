#include "tools/archiveview/views/html_assets.h"

#include "tools/page_asset.h"

namespace archiveview {

// The build defines where each file is, and its digest.
PAGE_ASSET(html_style, PAGE_STYLE)
PAGE_ASSET(html_script, PAGE_SCRIPT)

std::string_view html_style_digest() {
    return PAGE_STYLE_DIGEST;
}
std::string_view html_script_digest() {
    return PAGE_SCRIPT_DIGEST;
}

}  // namespace archiveview
