// Reads the head of an HTTP request as its bytes arrive.
#pragma once

#include <stddef.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The longest head, including its empty last line.
constexpr size_t webfront_head_limit = 8192;

// The parts of a head that the front uses.
struct webfront_head {
    int version = 11;                // 10 or 11
    std::string method;              // as it was sent
    std::string target;              // as it was sent
    std::vector<std::string> hosts;  // the value of each Host field
    bool announces_body = false;
    // A page of another site embeds the result of the request, for example as an image.
    bool is_embedded_elsewhere = false;
};

enum class webfront_head_state {
    incomplete,
    complete,
    bad,        // not HTTP/1.0 or HTTP/1.1
    too_large,  // not complete within webfront_head_limit bytes
};

// Collects one head from pieces of any size.
class webfront_head_reader {
public:
    webfront_head_reader();
    webfront_head_reader(webfront_head_reader&& from) noexcept;
    webfront_head_reader& operator=(webfront_head_reader&& from) noexcept;
    ~webfront_head_reader();

    // Parses the next bytes. Drops what follows the head. Must not be called again after it has returned
    // anything but `incomplete`.
    webfront_head_state feed(std::string_view bytes);

    bool has_begun() const;  // true once a byte has arrived

    // The head; valid only after feed() has returned `complete`.
    webfront_head head() const;

private:
    struct parser_state;
    std::unique_ptr<parser_state> state_;
};
