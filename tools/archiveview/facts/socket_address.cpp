#include "tools/archiveview/facts/socket_address.h"

#include <arpa/inet.h>

#include <array>

#include "tools/archiveview/facts/parse.h"

namespace archiveview {

namespace {

constexpr size_t word_digits = 8;
constexpr size_t word_bytes = 4;
constexpr size_t ipv6_words = 4;

using address_bytes = std::array<uint8_t, ipv6_words * word_bytes>;

// Each word is printed as a number of the device; its bytes in memory are those of the address.
bool parse_words(std::string_view digits, bool is_big_endian, address_bytes* bytes) {
    for (size_t at = 0; at < digits.size() / word_digits; at++) {
        const auto word = number_of<uint32_t>(digits.substr(at * word_digits, word_digits), 16);
        if (!word) {
            return false;
        }
        for (size_t i = 0; i < word_bytes; i++) {
            const size_t shift = 8 * (is_big_endian ? word_bytes - 1 - i : i);
            (*bytes)[at * word_bytes + i] = static_cast<uint8_t>(*word >> shift);
        }
    }
    return true;
}

}  // namespace

std::optional<std::string> socket_address(std::string_view table_text, bool is_big_endian) {
    const size_t colon = table_text.find(':');
    const std::string_view digits = table_text.substr(0, colon);
    const bool is_ipv6 = digits.size() == ipv6_words * word_digits;
    address_bytes bytes;
    if (colon == table_text.npos || (!is_ipv6 && digits.size() != word_digits) ||
        !parse_words(digits, is_big_endian, &bytes)) {
        return std::nullopt;
    }
    const auto port = number_of<uint16_t>(table_text.substr(colon + 1), 16);
    char text[INET6_ADDRSTRLEN];
    if (!port || !inet_ntop(is_ipv6 ? AF_INET6 : AF_INET, bytes.data(), text, sizeof text)) {
        return std::nullopt;
    }
    const std::string address = is_ipv6 ? "[" + std::string(text) + "]" : text;
    return address + ":" + std::to_string(*port);
}

std::string plain_address(std::string_view address) {
    constexpr std::string_view prefix = "[::ffff:";
    const size_t end = address.find(']');
    const std::string_view inner = address.substr(0, end);
    if (!address.starts_with(prefix) || end == address.npos || inner.find('.') == inner.npos) {
        return std::string(address);
    }
    return std::string(inner.substr(prefix.size())).append(address.substr(end + 1));
}

}  // namespace archiveview
