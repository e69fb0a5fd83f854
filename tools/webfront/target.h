// What a request's target and Host field say: pure functions on text.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

// The longest message that is handed over: the daemon takes at most 4095 bytes at a time, and one of exactly
// that length could not be told from one that was cut.
constexpr size_t webfront_message_limit = 4094;

// A target cut at its first '?', both halves as they were sent, nothing decoded. Views into the target.
struct webfront_target {
    std::string_view path;
    std::string_view query;  // empty without a '?', and after a last one
};
webfront_target webfront_split_target(std::string_view target);

// Whether `target` is an absolute path with an optional query: it starts with '/' and holds neither blanks
// nor control characters.
bool webfront_is_origin_form(std::string_view target);

// Whether a Host field names the address that the front listens on, 127.0.0.1 or localhost in any case, with
// the port; the port may be left out when it is 80.
bool webfront_host_is_ours(std::string_view host, uint16_t port);

// The daemon's message for a target: the path, a zero byte and the query, without a zero byte behind it.
std::string webfront_message(std::string_view target);
