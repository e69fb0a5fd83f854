// Answers that come from the front itself, not from the daemon.
#pragma once

#include <string>
#include <string_view>

// Returns a whole HTTP/1.0 answer, head and body, after which the connection is closed. `status` is one of
// those in answer.cpp's table. `fields` are further header fields, each with its line end. An answer to a
// HEAD request is made without `with_body`: it announces the body's length only.
std::string webfront_answer(int status, std::string_view content_type, std::string_view body,
                            bool with_body = true, std::string_view fields = {});

// Returns an error answer: one sentence of plain text, to which a newline is added.
std::string webfront_error(int status, std::string_view sentence, bool with_body = true);

// Sends a fixed 503 to a client when memory has run out. Allocates nothing, and does not wait: sends as much
// as the socket takes.
void webfront_refuse(int client_fd);
