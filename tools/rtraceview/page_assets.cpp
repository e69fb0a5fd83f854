#include "tools/rtraceview/page_assets.h"

#include "tools/page_asset.h"

// The build defines where each file is.
PAGE_ASSET(page_asset_library, PAGE_LIBRARY)
PAGE_ASSET(page_asset_library_style, PAGE_LIBRARY_STYLE)
PAGE_ASSET(page_asset_style, PAGE_STYLE)
PAGE_ASSET(page_asset_script, PAGE_SCRIPT)
