// Text from an archive that a terminal may show.
#pragma once

#include <string>
#include <string_view>

namespace archiveview {

// The text with '?' for each byte of a control character and of what is not UTF-8.
std::string printable(std::string_view text);

}  // namespace archiveview
