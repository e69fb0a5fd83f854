// The parts of a request's target, and its Host field. All calls are pure functions of their text.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

// The longest message to the daemon. It reads up to 4095 bytes, and could not tell a message of exactly that
// length from a longer one that was cut.
constexpr size_t webfront_message_limit = 4094;

// A target cut at its first '?'. Both parts are as they were sent, not decoded, and are views of the target.
struct webfront_target {
    std::string_view path;
    std::string_view query;  // empty when nothing follows the '?', or when there is no '?'
};
webfront_target webfront_split_target(std::string_view target);

// True if `target` is an absolute path with an optional query: it begins with '/' and contains neither blanks
// nor control characters.
bool webfront_is_origin_form(std::string_view target);

// True if a Host field names the address that the front listens on: 127.0.0.1 or localhost, in upper or lower
// case, with the port. The port may be missing if it is 80.
bool webfront_is_own_host(std::string_view host, uint16_t port);

// Returns the message to the daemon: the path, a zero byte and the query, without a final zero byte.
std::string webfront_message(std::string_view target);
