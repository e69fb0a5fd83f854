// HTTP/1.0 answers, written whole onto a browser's connection; the end of the body is the end of the
// connection, which the caller closes.
#pragma once

#include <string_view>

// Fixed answers, written as they stand. They carry no cache headers.
constexpr std::string_view http_server_error =
    "HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    "The server encountered an internal error and could not complete the request\n";
constexpr std::string_view http_bad_request =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
static_assert(http_server_error.size() == 140);
static_assert(http_bad_request.size() == 121);

// Writes one of the fixed answers; a client that has gone is not reported.
void http_write_fixed(int fd, std::string_view answer);

// Writes the head of a download: its media type and the name under which the browser saves it. Quotes,
// backslashes and control characters in the name become '_'. Returns 0 when it was written whole, else 1.
int stream_http_header(int fd, const char* content_type, const char* filename);

// Writes a whole status page: `status` as in "503 Service Unavailable", `message` as the page's body. A
// failure is not reported.
void stream_http_message(int fd, const char* status, const char* message);
