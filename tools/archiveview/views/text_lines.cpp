#include "tools/archiveview/views/text_lines.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <utility>

#include "tools/archiveview/source/printable.h"

namespace archiveview {

namespace {

constexpr std::string_view ellipsis = "...";

bool begins_character(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) != 0x80;
}

size_t characters_in(std::string_view text) {
    return static_cast<size_t>(std::ranges::count_if(text, begins_character));
}

// How many bytes the first `count` characters of `text` have.
size_t bytes_of(std::string_view text, size_t count) {
    size_t at = 0;
    for (size_t i = 0; i < count && at < text.size(); i++) {
        at++;
        while (at < text.size() && !begins_character(text[at])) {
            at++;
        }
    }
    return at;
}

// Takes as much off `text` as fits a line of `count` characters. It breaks at a blank unless that would leave
// half of the line empty.
std::string_view take_fitting(std::string_view* text, size_t count) {
    if (characters_in(*text) <= count) {
        return std::exchange(*text, {});
    }
    size_t end = bytes_of(*text, count + 1);
    const size_t blank = text->rfind(' ', end - 1);
    const bool is_far = blank == std::string_view::npos || blank < bytes_of(*text, count / 2);
    end = is_far ? bytes_of(*text, count) : blank;
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(is_far ? end : end + 1);
    return line;
}

struct time_unit {
    uint64_t seconds;
    const char* name;
};

constexpr time_unit time_units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};

}  // namespace

void text_lines::add(std::string_view text, std::string_view first, std::string_view others, size_t limit) {
    const std::string shown = printable(text);
    std::string_view rest = shown;
    for (size_t i = 0; i < limit && !rest.empty(); i++) {
        const std::string_view indent = i == 0 ? first : others;
        const size_t space = width - indent.size();
        const bool is_last = i + 1 == limit;
        const bool is_cut = is_last && characters_in(rest) > space;
        text_ += indent;
        text_ +=
            is_cut ? rest.substr(0, bytes_of(rest, space - ellipsis.size())) : take_fitting(&rest, space);
        text_ += is_cut ? ellipsis : "";
        text_ += '\n';
    }
}

std::string decimal_text(double number) {
    char text[32];
    const auto [end, error] = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, 1);
    return error == std::errc() ? std::string(text, end) : "?";
}

std::string size_text(uint64_t bytes) {
    static constexpr const char* units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    double size = static_cast<double>(bytes) / 1000;
    size_t unit = 0;
    for (; size >= 999.95 && unit + 1 < std::size(units); unit++) {
        size /= 1000;
    }
    return decimal_text(size) + " " + units[unit];
}

std::string duration_text(double seconds) {
    uint64_t left = seconds > 0 && seconds < 1e12 ? static_cast<uint64_t>(std::llround(seconds)) : 0;
    std::string text;
    size_t parts = 0;
    for (const time_unit& unit : time_units) {
        const uint64_t count = left / unit.seconds;
        left %= unit.seconds;
        if (count == 0 && !(parts == 0 && unit.seconds == 1)) {
            continue;
        }
        text += (text.empty() ? "" : " ") + std::to_string(count) + " " + unit.name;
        if (++parts == 2) {
            break;
        }
    }
    return text;
}

}  // namespace archiveview
