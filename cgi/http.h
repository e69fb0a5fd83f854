// HTTP/1.0 answers, written to a browser's connection. The body ends when the caller closes the connection.
#pragma once

#include <string_view>

// Fixed answers. They have no cache headers.
constexpr std::string_view http_server_error =
    "HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    "The server encountered an internal error and could not complete the request\n";
constexpr std::string_view http_bad_request =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
static_assert(http_server_error.size() == 140);
static_assert(http_bad_request.size() == 121);

// Writes one of the fixed answers. Failures are not reported.
void http_write_fixed(int fd, std::string_view answer);

// Writes the header of a download with its media type and the file name that the browser saves it under.
// Quotes, backslashes and control characters in the name become '_'. Returns 0 if all of it was written,
// else 1.
int stream_http_header(int fd, const char* content_type, const char* filename);

// Writes a complete status page: `status` as in "503 Service Unavailable", `message` as the page's body.
// Failures are not reported.
void stream_http_message(int fd, const char* status, const char* message);
