#include "tools/archiveview/views/html_text.h"

#include <stdint.h>
#include <zlib.h>

#include <new>

#include "common/ascii.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/source/printable.h"

namespace archiveview {

std::string html_escaped(std::string_view text) {
    std::string escaped;
    for (const char c : printable(text)) {
        switch (c) {
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '&':
                escaped += "&amp;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string html_fragment(std::string_view place) {
    constexpr char digits[] = "0123456789ABCDEF";
    const size_t slash = place.find('/');
    std::string fragment = "#";
    for (size_t i = 0; i < place.size(); i++) {
        const unsigned char byte = static_cast<unsigned char>(place[i]);
        const bool is_plain = (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') ||
                              (byte >= 'A' && byte <= 'Z') || i == slash;
        if (is_plain) {
            fragment += place[i];
        } else {
            fragment += {'%', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return fragment;
}

std::string base64(std::string_view bytes) {
    constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = 0;
        for (size_t j = 0; j < 3; j++) {
            group = group << 8 | (i + j < bytes.size() ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        }
        for (size_t j = 0; j < 4; j++) {
            text += i + j <= bytes.size() ? letters[group >> (18 - 6 * j) & 63] : '=';
        }
    }
    return text;
}

std::string bytes_of_hex(std::string_view digits) {
    std::string bytes;
    for (size_t i = 0; i + 2 <= digits.size(); i += 2) {
        bytes += static_cast<char>(number_of<unsigned>(digits.substr(i, 2), 16).value_or(0));
    }
    return bytes;
}

std::string packed(std::string_view bytes) {
    std::string small(compressBound(bytes.size()), '\0');
    uLongf size = small.size();
    if (compress(reinterpret_cast<Bytef*>(small.data()), &size, reinterpret_cast<const Bytef*>(bytes.data()),
                 bytes.size()) != Z_OK) {
        throw std::bad_alloc();
    }
    return base64(std::string_view(small).substr(0, size));
}

}  // namespace archiveview
