#include "tools/rtraceview/output.h"

#include <time.h>

#include <charconv>
#include <cstdio>
#include <utility>

namespace {

constexpr size_t piece_size = 65536;

}  // namespace

bool is_plausible_time(int64_t time_ms) {
    constexpr int64_t limit_ms = 253402300800000;  // the year 10000
    return time_ms >= 0 && time_ms < limit_ms;
}

text_output::text_output(byte_sink sink) : sink_(std::move(sink)) {
    buffer_.reserve(2 * piece_size);
}

void text_output::write(std::string_view text) {
    buffer_.append(text);
    if (buffer_.size() >= piece_size) {
        flush();
    }
}

void text_output::write(char character) {
    write(std::string_view(&character, 1));
}

void text_output::flush() {
    if (!buffer_.empty()) {
        sink_(buffer_);
        buffer_.clear();
    }
}

void text_output::write_number(double number) {
    char text[512];  // the largest number has 309 digits
    auto [end, error] = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed);
    write(error == std::errc() ? std::string_view(text, static_cast<size_t>(end - text)) : "0");
}

void text_output::write_csv(std::string_view text) {
    if (text.find_first_of("\",\r\n") == std::string_view::npos) {
        write(text);
        return;
    }
    write('"');
    for (char character : text) {
        write(character == '"' ? std::string_view("\"\"") : std::string_view(&character, 1));
    }
    write('"');
}

void text_output::write_time(int64_t time_ms) {
    if (!is_plausible_time(time_ms)) {
        write(std::to_string(time_ms) + " ms");
        return;
    }
    time_t seconds = static_cast<time_t>(time_ms / 1000);
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[64];
    size_t length = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    write(std::string_view(text, length));
    (void)snprintf(text, sizeof text, ".%03d", static_cast<int>(time_ms % 1000));
    write(text);
}
