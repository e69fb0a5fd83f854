// Archives that a test makes itself.
#pragma once

#include <string.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/source/archive_source.h"

namespace made {

inline constexpr size_t block_size = 512;
inline constexpr std::string_view top = "debug-20260304-050607-c0/";

inline std::string padding(size_t length) {
    return std::string((block_size - length % block_size) % block_size, '\0');
}

inline std::string header(std::string_view name, size_t size) {
    std::string block(block_size, '\0');
    const auto put = [&block](size_t at, std::string_view text) { block.replace(at, text.size(), text); };
    char number[16];
    snprintf(number, sizeof number, "%011zo", size);
    put(0, name.substr(0, 100));
    put(100, "0000644");
    put(124, number);
    put(148, "        ");
    put(156, "0");
    put(257, "ustar");
    put(263, "  ");
    unsigned sum = 0;
    for (const char byte : block) {
        sum += static_cast<unsigned char>(byte);
    }
    snprintf(number, sizeof number, "%06o", sum);
    put(148, std::string_view(number, 7));
    return block;
}

inline std::string member(std::string_view name, std::string_view data) {
    return header(std::string(top) + std::string(name), data.size()) + std::string(data) +
           padding(data.size());
}

inline std::string packed(std::string_view text) {
    z_stream stream = {};
    deflateInit2(&stream, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string to(deflateBound(&stream, text.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(to.data());
    stream.avail_out = static_cast<uInt>(to.size());
    deflate(&stream, Z_FINISH);
    to.resize(to.size() - stream.avail_out);
    deflateEnd(&stream);
    return to;
}

// Gives `text` in pieces. The text must outlive it.
inline archiveview::byte_source bytes_of(std::string_view text, size_t piece = 1000) {
    return [text, piece, at = size_t{0}](std::span<char> to) mutable {
        const size_t count = std::min({to.size(), piece, text.size() - at});
        memcpy(to.data(), text.data() + at, count);
        at += count;
        return count;
    };
}

}  // namespace made
