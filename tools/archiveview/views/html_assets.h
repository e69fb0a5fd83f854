// The constant parts of the page, which are built into the program.
#pragma once

#include <string_view>

namespace archiveview {

std::string_view html_style();
std::string_view html_script();
// Their SHA-256 in hexadecimal: the page allows nothing else to run.
std::string_view html_style_digest();
std::string_view html_script_digest();

}  // namespace archiveview
