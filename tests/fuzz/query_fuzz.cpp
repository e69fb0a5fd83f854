// Parses any bytes as a query: CGI_get_value returns what a simple reference decoder returns.
#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vextor.h"
#include "tests/fuzz/require.h"

namespace {

struct reference_pair {
    std::string name;
    std::string value;
};

int digit_value(char digit) {
    constexpr std::string_view digits = "0123456789abcdef0123456789ABCDEF";
    size_t at = digits.find(digit);
    return at == std::string_view::npos ? -1 : static_cast<int>(at % 16);
}

std::string reference_decode(std::string_view text) {
    std::string decoded;
    while (!text.empty()) {
        bool escape =
            text.size() >= 3 && text[0] == '%' && digit_value(text[1]) >= 0 && digit_value(text[2]) >= 0;
        if (escape) {
            decoded += static_cast<char>(digit_value(text[1]) * 16 + digit_value(text[2]));
        } else {
            decoded += text[0] == '+' ? ' ' : text[0];
        }
        text.remove_prefix(escape ? 3 : 1);
    }
    return decoded;
}

std::vector<reference_pair> reference_parse(std::string_view query) {
    std::vector<reference_pair> pairs;
    for (size_t start = 0; start <= query.size();) {
        size_t end = std::min(query.find('&', start), query.size());
        std::string_view one = query.substr(start, end - start);
        start = end + 1;
        if (!one.empty()) {
            size_t equals = std::min(one.find('='), one.size());
            std::string_view value = equals < one.size() ? one.substr(equals + 1) : std::string_view();
            pairs.push_back({reference_decode(one.substr(0, equals)), reference_decode(value)});
        }
    }
    return pairs;
}

const reference_pair* reference_find(const std::vector<reference_pair>& pairs, const std::string& name) {
    for (const reference_pair& one : pairs) {
        if (one.name == name) {
            return &one;
        }
    }
    return nullptr;
}

void compare(const std::vector<reference_pair>& pairs, const std::string& name, size_t query_length) {
    const char* value = CGI_get_value(name.c_str());
    const reference_pair* wanted = reference_find(pairs, name);
    require((value != nullptr) == (wanted != nullptr));
    if (value != nullptr) {
        require(std::string_view(value).size() <= query_length);
        require(std::string_view(value) == wanted->value.c_str());  // a value ends at its first NUL
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    std::string query = bytes.c_str();  // as a C caller sees it
    std::vector<reference_pair> pairs = reference_parse(query);

    CGI_set_query(query.c_str());
    for (const reference_pair& one : pairs) {
        require(CGI_get_value(one.name.c_str()) == nullptr);
    }
    CGI_save_env();
    for (const reference_pair& one : pairs) {
        compare(pairs, one.name.c_str(), query.size());   // cut at a NUL, so possibly not a name
        compare(pairs, one.value.c_str(), query.size());  // rarely a name
    }
    compare(pairs, "", query.size());
    compare(pairs, query, query.size());
    CGI_cleanup();
    require(CGI_get_value("") == nullptr);
    return 0;
}
