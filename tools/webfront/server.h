// The front's loop: waits for heads, answers or hands over.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <string>

#include "common/unique_fd.h"

// Connections held at a time, whatever they wait for; one more is answered 503 at once. With them, the loop
// and the hand-over threads stay below the usual limit of 1024 descriptors.
constexpr size_t webfront_connection_limit = 900;
// From the connection on, until its head is complete.
constexpr std::chrono::seconds webfront_head_time{10};
// For a client to take an answer and close: until then what it still sends is read and dropped, since closing
// over unread input would reset the connection and could destroy the answer.
constexpr std::chrono::seconds webfront_answer_time{2};

// Listens on 127.0.0.1, or on every address, at `*port`; 0 lets the kernel choose, and `*port` is then what
// it chose. Returns the socket, close-on-exec and non-blocking, or nothing with errno set.
unique_fd webfront_listen(uint16_t* port, bool every_address = false);

// Serves `listener` (from webfront_listen) for ever, with the daemon at `socket_path`. `port` is the one that
// browsers name. Throws std::exception when there are not the threads, descriptors or memory to begin with.
[[noreturn]] void webfront_serve(unique_fd listener, uint16_t port, const std::string& socket_path);
