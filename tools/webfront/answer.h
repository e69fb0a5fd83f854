// The answers that the front gives itself.
#pragma once

#include <string>
#include <string_view>

// A whole HTTP/1.0 answer, head and body, after which the connection is closed. `status` is one of those in
// answer.cpp's table; `fields` are further header fields, each with its line end. Without `with_body`, for a
// HEAD request, the body is only counted.
std::string webfront_answer(int status, std::string_view content_type, std::string_view body,
                            bool with_body = true, std::string_view fields = {});

// Answers a client for which there is no memory, and takes none: as much of a fixed 503 as goes out at once.
void webfront_refuse(int client_fd);

// An error answer: one plain-text sentence, to which a newline is added.
std::string webfront_error(int status, std::string_view sentence, bool with_body = true);
