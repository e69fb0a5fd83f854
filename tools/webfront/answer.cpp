#include "tools/webfront/answer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

constexpr struct {
    int status;
    std::string_view reason;
    std::string_view fields;  // further header fields
} statuses[] = {
    {200, "OK", "Cache-Control: no-cache\r\n"},
    {400, "Bad Request", ""},
    {403, "Forbidden", ""},
    {404, "Not Found", ""},
    {405, "Method Not Allowed", "Allow: GET\r\n"},
    {408, "Request Timeout", ""},
    {414, "URI Too Long", ""},
    {431, "Request Header Fields Too Large", ""},
    {502, "Bad Gateway", ""},
    {503, "Service Unavailable", ""},
};

}  // namespace

std::string webfront_answer(int status, std::string_view content_type, std::string_view body, bool with_body,
                            std::string_view fields) {
    const auto* row = std::ranges::find(statuses, status, [](const auto& each) { return each.status; });
    if (row == std::end(statuses)) {
        abort();
    }
    std::string answer = "HTTP/1.0 " + std::to_string(status) + " ";
    answer.append(row->reason).append("\r\nConnection: close\r\nContent-Type: ").append(content_type);
    answer.append("\r\nContent-Length: ").append(std::to_string(body.size()));
    answer.append("\r\nX-Content-Type-Options: nosniff\r\n")
        .append(row->fields)
        .append(fields)
        .append("\r\n");
    if (with_body) {
        answer.append(body);
    }
    return answer;
}

std::string webfront_error(int status, std::string_view sentence, bool with_body) {
    return webfront_answer(status, "text/plain; charset=utf-8", std::string(sentence) + "\n", with_body);
}

void webfront_refuse(int client_fd) {
    constexpr std::string_view sentence = "There is not enough memory for this request; try again later.\n";
    static_assert(sentence.size() == 62);  // the Content-Length below
    constexpr std::string_view head =
        "HTTP/1.0 503 Service Unavailable\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Length: 62\r\nX-Content-Type-Options: nosniff\r\n\r\n";
    for (std::string_view part : {head, sentence}) {
        (void)send(client_fd, part.data(), part.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}
