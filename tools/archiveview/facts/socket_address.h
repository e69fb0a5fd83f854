// Addresses of sockets, as text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace archiveview {

// The address "192.0.2.1:80" or "[2001:db8::1]:80" that a table of the kernel prints as "010200C0:0050", or
// nothing if it is none.
std::optional<std::string> socket_address(std::string_view table_text, bool is_big_endian);

// The address without the IPv6 prefix of an IPv4 address: "192.0.2.1:80" for "[::ffff:192.0.2.1]:80".
std::string plain_address(std::string_view address);

}  // namespace archiveview
