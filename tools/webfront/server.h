// The front's loop, which accepts connections, reads heads and sends answers.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/unique_fd.h"

// The number of connections that are open at the same time, in the loop or in a pool. Further clients get a
// 503. The limit keeps the process below the usual limit of 1024 descriptors.
constexpr size_t webfront_connection_limit = 900;

// Serves `listener` (from webfront_listen) for ever, with the daemon at `socket_path` and archiveview at
// `reader_path`. `port` is the one that browsers use. Throws std::exception if threads, descriptors or memory
// run out at the start.
[[noreturn]] void webfront_serve(unique_fd listener, uint16_t port, const std::string& socket_path,
                                 const std::string& reader_path);
