// The HTTP parser takes long to compile. No other source includes it.
#include "tools/webfront/head.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

#include <algorithm>

namespace http = boost::beast::http;

struct webfront_head_reader::parser_state {
    http::request_parser<http::empty_body> parser;
    std::string unparsed;
    size_t taken = 0;  // bytes so far
};

webfront_head_reader::webfront_head_reader() : state_(std::make_unique<parser_state>()) {
    state_->parser.header_limit(webfront_head_limit);
    // A head that announces a body is refused later, whatever the length.
    state_->parser.skip(true);
}

webfront_head_reader::webfront_head_reader(webfront_head_reader&& from) noexcept = default;
webfront_head_reader& webfront_head_reader::operator=(webfront_head_reader&& from) noexcept = default;
webfront_head_reader::~webfront_head_reader() = default;

webfront_head_state webfront_head_reader::feed(std::string_view bytes) {
    // The parser applies its limit to each call, so the total is counted here.
    bytes = bytes.substr(0, webfront_head_limit - state_->taken);
    state_->taken += bytes.size();
    state_->unparsed.append(bytes);
    boost::system::error_code error;
    size_t parsed = state_->parser.put(boost::asio::buffer(state_->unparsed), error);
    state_->unparsed.erase(0, parsed);
    if (error == http::error::header_limit) {
        return webfront_head_state::too_large;
    }
    if (error && error != http::error::need_more) {
        return webfront_head_state::bad;
    }
    if (state_->parser.is_header_done()) {
        return webfront_head_state::complete;
    }
    return state_->taken == webfront_head_limit ? webfront_head_state::too_large
                                                : webfront_head_state::incomplete;
}

bool webfront_head_reader::has_begun() const {
    return state_->taken > 0;
}

webfront_head webfront_head_reader::head() const {
    const auto& request = state_->parser.get();
    webfront_head head;
    head.version = static_cast<int>(request.version());
    head.method = std::string(request.method_string());
    head.target = std::string(request.target());
    auto [host, end] = request.equal_range(http::field::host);
    for (; host != end; ++host) {
        head.hosts.emplace_back(host->value());
    }
    head.announces_body =
        request.count(http::field::transfer_encoding) > 0 || state_->parser.content_length().value_or(0) > 0;
    head.is_embedded_elsewhere =
        request["Sec-Fetch-Site"] == "cross-site" && request["Sec-Fetch-Mode"] != "navigate";
    return head;
}
