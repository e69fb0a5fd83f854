#include "tools/rtraceview/output.h"

#include <time.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

constexpr size_t piece_size = 65536;
constexpr double whole_limit = 9007199254740992;  // 2^53

// The length of the UTF-8 sequence at the beginning of `text`, 0 when there is none.
size_t utf8_length(std::string_view text) {
    auto byte = [text](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    auto follows = [&byte](size_t i) { return (byte(i) & 0xc0U) == 0x80U; };
    unsigned first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xc2 && first <= 0xdf) {
        return follows(1) ? 2 : 0;
    }
    if (first >= 0xe0 && first <= 0xef) {
        bool is_odd = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f);
        return follows(1) && follows(2) && !is_odd ? 3 : 0;
    }
    if (first >= 0xf0 && first <= 0xf4) {
        bool is_odd = (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f);
        return follows(1) && follows(2) && follows(3) && !is_odd ? 4 : 0;
    }
    return 0;
}

bool is_plain(char character) {
    return character >= 0x20 && character < 0x7f && character != '"' && character != '\\' && character != '<';
}

}  // namespace

bool is_date(int64_t time_ms) {
    constexpr int64_t limit_ms = 253402300800000;  // the year 10000
    return time_ms >= 0 && time_ms < limit_ms;
}

text_output::text_output(byte_sink sink) : sink_(std::move(sink)) {
    buffer_.reserve(2 * piece_size);
}

void text_output::put(std::string_view text) {
    buffer_.append(text);
    if (buffer_.size() >= piece_size) {
        flush();
    }
}

void text_output::put(char character) {
    put(std::string_view(&character, 1));
}

void text_output::flush() {
    if (!buffer_.empty()) {
        sink_(buffer_);
        buffer_.clear();
    }
}

void text_output::put_number(double number) {
    char text[64];
    bool is_whole = std::fabs(number) < whole_limit && number == std::floor(number);
    auto [end, error] = is_whole ? std::to_chars(text, text + sizeof text, static_cast<int64_t>(number))
                                 : std::to_chars(text, text + sizeof text, number);
    put(error == std::errc() ? std::string_view(text, static_cast<size_t>(end - text)) : "0");
}

void text_output::put_json(std::string_view text) {
    put('"');
    while (!text.empty()) {
        size_t plain = 0;
        while (plain < text.size() && is_plain(text[plain])) {
            plain++;
        }
        put(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        size_t length = utf8_length(text);
        if (length > 1) {
            put(text.substr(0, length));
        } else if (length == 0) {
            put("\\ufffd");
        } else {
            char escaped[8];
            (void)snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(text[0]));
            put(escaped);
        }
        text.remove_prefix(length > 0 ? length : 1);
    }
    put('"');
}

void text_output::put_csv(std::string_view text) {
    if (text.find_first_of("\",\r\n") == std::string_view::npos) {
        put(text);
        return;
    }
    put('"');
    for (char character : text) {
        put(character == '"' ? std::string_view("\"\"") : std::string_view(&character, 1));
    }
    put('"');
}

void text_output::put_time(int64_t time_ms) {
    if (!is_date(time_ms)) {
        put(std::to_string(time_ms)), put(" ms");
        return;
    }
    time_t seconds = static_cast<time_t>(time_ms / 1000);
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[64];
    size_t length = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    put(std::string_view(text, length));
    (void)snprintf(text, sizeof text, ".%03d", static_cast<int>(time_ms % 1000));
    put(text);
}
