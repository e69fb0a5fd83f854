// Writing JSON.
#pragma once

#include <string>
#include <string_view>

// `bytes` as a JSON string, quotes included. What is not UTF-8 becomes U+FFFD, one for each such byte;
// control characters, quotes and backslashes are escaped.
std::string webfront_json_string(std::string_view bytes);
