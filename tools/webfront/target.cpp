#include "tools/webfront/target.h"

#include <strings.h>

#include <algorithm>

namespace {

constexpr uint16_t default_http_port = 80;

bool equal_in_any_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

webfront_target webfront_split_target(std::string_view target) {
    size_t mark = target.find('?');
    if (mark == std::string_view::npos) {
        return {target, {}};
    }
    return {target.substr(0, mark), target.substr(mark + 1)};
}

bool webfront_is_origin_form(std::string_view target) {
    return target.starts_with('/') &&
           std::ranges::none_of(target, [](unsigned char byte) { return byte <= ' ' || byte == 0x7f; });
}

bool webfront_is_own_host(std::string_view host, uint16_t port) {
    for (std::string_view name : {"127.0.0.1", "localhost"}) {
        if (equal_in_any_case(host, std::string(name) + ":" + std::to_string(port)) ||
            (port == default_http_port && equal_in_any_case(host, name))) {
            return true;
        }
    }
    return false;
}

std::string webfront_message(std::string_view target) {
    webfront_target parts = webfront_split_target(target);
    std::string message(parts.path);
    message.push_back('\0');
    message.append(parts.query);
    return message;
}
