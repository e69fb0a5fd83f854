// Reading a request's head as it comes in.
#pragma once

#include <stddef.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The longest head that is taken, its empty last line included.
constexpr size_t webfront_head_limit = 8192;

// What the front wants to know of a head.
struct webfront_head {
    int version = 11;                // 10 or 11
    std::string method;              // as it was sent
    std::string target;              // as it was sent
    std::vector<std::string> hosts;  // the value of each Host field
    bool announces_body = false;
    bool is_embedded_elsewhere =
        false;  // a browser says that a page of another site makes it without being left
};

enum class webfront_head_state {
    incomplete,  // more bytes are wanted
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

    // Takes the next bytes; what follows the head is dropped. Not to be called again once the state is
    // another than incomplete.
    webfront_head_state feed(std::string_view bytes);

    // Whether any byte has come.
    bool started() const;

    // The head; only once feed has returned complete.
    webfront_head head() const;

private:
    struct parser_state;
    std::unique_ptr<parser_state> state_;
};
