#include "tools/webfront/route.h"

#include "tools/webfront/answer.h"
#include "tools/webfront/listing.h"
#include "tools/webfront/page.h"
#include "tools/webfront/report.h"
#include "tools/webfront/target.h"

namespace {

// Why a request is refused. Status 0 means that it is not.
struct error {
    int status = 0;
    std::string sentence;
};

error check_host(const webfront_head& head, uint16_t port) {
    if (head.hosts.size() > 1) {
        return {400, "The request has more than one Host field."};
    }
    if (head.hosts.empty() && head.version >= 11) {
        return {400, "The request has no Host field."};
    }
    if (head.hosts.empty() || !webfront_is_own_host(head.hosts[0], port)) {
        return {403, "Only requests to 127.0.0.1:" + std::to_string(port) +
                         " or localhost:" + std::to_string(port) + " are answered here."};
    }
    return {};
}

error check_request(const webfront_head& head) {
    if (head.method != "GET") {
        return {405, "Only GET requests are answered here."};
    }
    // Otherwise an image in any web page could fetch and so delete a stored dump, or start a trace.
    if (head.is_embedded_elsewhere) {
        return {403, "Requests embedded in pages of other sites are refused; follow a link instead."};
    }
    if (head.announces_body) {
        return {400, "A request here has no body."};
    }
    if (!webfront_is_origin_form(head.target)) {
        return {400, "The request's target is not a path that starts with a slash."};
    }
    if (webfront_message(head.target).size() > webfront_message_limit) {
        return {414, "The path and the query are longer than the " + std::to_string(webfront_message_limit) +
                         " bytes that the daemon takes."};
    }
    // Browsers request it without being asked, and the daemon would start a whole archive.
    if (webfront_split_target(head.target).path == "/favicon.ico") {
        return {404, "There is no icon."};
    }
    return {};
}

webfront_decision find_route(std::string_view target) {
    std::string_view path = webfront_split_target(target).path;
    if (const webfront_page_file* file = webfront_find_page_file(path)) {
        return {webfront_route::answer,
                webfront_answer(200, file->content_type, file->bytes, true, webfront_page_fields)};
    }
    if (webfront_is_listing(path)) {
        return {webfront_route::listing, std::string(path)};
    }
    if (path == webfront_report_path) {
        return {webfront_route::report, std::string(webfront_split_target(target).query)};
    }
    if (path.starts_with(webfront_own_paths)) {
        return {webfront_route::answer, webfront_error(404, "There is no such page.")};
    }
    return {webfront_route::daemon, webfront_message(target)};
}

}  // namespace

webfront_decision webfront_decide_broken(webfront_head_state state) {
    if (state == webfront_head_state::too_large) {
        return {webfront_route::answer,
                webfront_error(431, "The request's head is longer than " +
                                        std::to_string(webfront_head_limit) + " bytes.")};
    }
    return {webfront_route::answer, webfront_error(400, "The request is not well-formed HTTP.")};
}

webfront_decision webfront_decide(const webfront_head& head, uint16_t port) {
    error found = check_host(head, port);
    if (found.status == 0) {
        found = check_request(head);
    }
    if (found.status != 0) {
        return {webfront_route::answer, webfront_error(found.status, found.sentence, head.method != "HEAD")};
    }
    return find_route(head.target);
}
