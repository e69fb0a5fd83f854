// Pieces of HTML.
#pragma once

#include <string>
#include <string_view>

namespace archiveview {

// Text from an archive: what is not printable is replaced by '?', what HTML gives a meaning is escaped, also
// for attributes between double quotes.
std::string html_escaped(std::string_view text);

// A place of evidence as a link within the page: "#member/proc%2Fstat". Bytes other than letters and digits
// are escaped, but for the first slash.
std::string html_fragment(std::string_view place);

std::string base64(std::string_view bytes);

// The bytes that hexadecimal digits stand for.
std::string bytes_of_hex(std::string_view digits);

// Compressed in the format that browsers call "deflate", in base64.
std::string packed(std::string_view bytes);

}  // namespace archiveview
