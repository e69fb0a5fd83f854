// The constant parts of a page of plots, which are built into the program.
#pragma once

#include <string_view>

std::string_view page_asset_library();  // the plotting library
std::string_view page_asset_library_style();
std::string_view page_asset_style();
std::string_view page_asset_script();
