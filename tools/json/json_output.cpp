#include "tools/json/json_output.h"

#include <utf8.h>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

constexpr double whole_limit = 9007199254740992;  // 2^53

bool is_ascii(std::string_view text) {
    return std::ranges::none_of(text, [](char byte) { return static_cast<signed char>(byte) < 0; });
}

// Calls `write` with the text as UTF-8.
template <typename Write>
void with_utf8(std::string_view text, Write write) {
    if (is_ascii(text) || utf8::is_valid(text.begin(), text.end())) {
        write(text);
        return;
    }
    std::string replaced;
    utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(replaced));
    write(std::string_view(replaced));
}

rapidjson::SizeType length_of(std::string_view text) {
    return static_cast<rapidjson::SizeType>(text.size());
}

}  // namespace

void json_output::key(std::string_view name) {
    with_utf8(name, [this](std::string_view valid) { writer_.Key(valid.data(), length_of(valid)); });
}

void json_output::string(std::string_view text) {
    with_utf8(text, [this](std::string_view valid) { writer_.String(valid.data(), length_of(valid)); });
}

void json_output::number(double number) {
    if (std::fabs(number) < whole_limit && number == std::floor(number)) {
        writer_.Int64(static_cast<int64_t>(number));
    } else {
        writer_.Double(number);
    }
}

void json_output::end_line() {
    buffer_.Put('\n');
    writer_.Reset(buffer_);
}
