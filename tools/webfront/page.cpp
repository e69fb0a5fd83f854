#include "tools/webfront/page.h"

#include <algorithm>
#include <iterator>

#include "tools/webfront/page_bytes.h"

namespace {

constexpr webfront_page_file files[] = {
    {"/", "text/html; charset=utf-8", webfront_bytes_index_html},
    {"/webfront/page.css", "text/css; charset=utf-8", webfront_bytes_page_css},
    {"/webfront/page.js", "text/javascript; charset=utf-8", webfront_bytes_page_js},
};

}  // namespace

// The icon is a data: address, which keeps browsers from asking for one.
const std::string_view webfront_page_fields =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; form-action 'self'; base-uri 'none'; frame-ancestors 'none'\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

const webfront_page_file* webfront_find_page_file(std::string_view path) {
    const auto* found = std::ranges::find(files, path, &webfront_page_file::path);
    return found == std::end(files) ? nullptr : found;
}
