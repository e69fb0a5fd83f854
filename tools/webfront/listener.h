// The socket on which the front accepts connections.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"

// Listens on port `*port` of 127.0.0.1, or of every address. If `*port` is 0, the kernel chooses one and
// `*port` becomes it. Returns the socket, close-on-exec and non-blocking. On failure it is empty, and errno
// is set.
unique_fd webfront_listen(bool every_address, uint16_t* port);
