#include "tools/archiveview/findings/wording.h"

#include <cmath>
#include <cstdio>

namespace archiveview {

std::string counted(uint64_t count, std::string_view noun, std::string_view plural) {
    const std::string number = std::to_string(count) + ' ';
    if (count == 1) {
        return number + std::string(noun);
    }
    return number + (plural.empty() ? std::string(noun) + 's' : std::string(plural));
}

std::string rounded(double number) {
    constexpr int longest = 32;
    char text[longest];
    const int digits = std::fabs(number) < 10 && std::floor(number) != number ? 1 : 0;
    snprintf(text, sizeof(text), "%.*f", digits, number);
    return text;
}

std::string size_of_kb(double kb) {
    constexpr double step = 1024;
    if (std::fabs(kb) < step) {
        return rounded(kb) + " KiB";
    }
    return std::fabs(kb) < step * step ? rounded(kb / step) + " MiB" : rounded(kb / step / step) + " GiB";
}

std::string span_of(double seconds) {
    constexpr double minute = 60;
    constexpr double hour = 60 * minute;
    if (seconds < 2 * minute) {
        return rounded(seconds) + " s";
    }
    return seconds < 2 * hour ? rounded(seconds / minute) + " min" : rounded(seconds / hour) + " h";
}

}  // namespace archiveview
