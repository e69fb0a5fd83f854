// Builds traces by hand, and collects what their views write.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/rtraceview/output.h"
#include "tools/rtraceview/record_reader.h"

constexpr int64_t some_time_ms = 1700000000123;  // 2023-11-14 22:13:20.123

template <typename Number>
std::string number_bytes(Number value, bool swapped) {
    std::string bytes(sizeof value, '\0');
    memcpy(bytes.data(), &value, sizeof value);
    if (swapped) {
        std::reverse(bytes.begin(), bytes.end());
    }
    return bytes;
}

inline std::string header(uint32_t type, uint32_t length, int more, int64_t time_ms = some_time_ms,
                          bool swapped = false) {
    return number_bytes(type, swapped) + number_bytes(length, swapped) + number_bytes(time_ms, swapped) +
           static_cast<char>(more) + std::string(3, '\0');
}

inline std::string record_with(uint32_t type, std::string_view data, int more, int64_t time_ms = some_time_ms,
                               bool swapped = false) {
    return header(type, static_cast<uint32_t>(data.size()), more, time_ms, swapped) + std::string(data);
}

// A file in one piece and its closing header.
inline std::string file_of(uint32_t type, std::string_view text, int64_t time_ms = some_time_ms) {
    return record_with(type, text, 1, time_ms) + header(type, 0, 0, time_ms);
}

inline std::string file_of_process(uint32_t type, int32_t pid, std::string_view text,
                                   int64_t time_ms = some_time_ms) {
    return file_of(type, number_bytes(pid, false) + std::string(text), time_ms);
}

// Returns the bytes in pieces of `piece`.
inline record_reader::byte_source source_of(std::string bytes, size_t piece = SIZE_MAX) {
    return [bytes = std::move(bytes), piece, offset = size_t{0}](char* to, size_t size) mutable {
        size_t count = std::min({size, piece, bytes.size() - offset});
        memcpy(to, bytes.data() + offset, count);
        offset += count;
        return count;
    };
}

class collected_text {
public:
    text_output out{[this](std::string_view text) { all_.append(text); }};
    const std::string& all() {
        out.flush();
        return all_;
    }

private:
    std::string all_;
};
