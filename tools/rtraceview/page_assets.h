// What a page of plots is made of besides its numbers; built into the program.
#pragma once

#include <string_view>

std::string_view page_asset_library();        // the plotting library
std::string_view page_asset_library_style();  // and its style
std::string_view page_asset_style();
std::string_view page_asset_script();
