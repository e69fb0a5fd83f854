// Moves bytes between descriptors. Interrupted and short transfers are continued.
//
// The retry rules differ from function to function, and callers rely on exactly these. No function allocates
// memory or prints; errno is left as the failing call set it.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Reads until `len` bytes are in or the input ends. EINTR and EAGAIN are retried at once. Returns the number
// of bytes read, or -1 on any other error; bytes read before the error are lost.
ssize_t safe_read(int fd, void* buf, unsigned len);

// Writes all `len` bytes; EINTR and EAGAIN are retried at once. Returns `len`, or -1 on any other error, even
// after a partial write.
ssize_t safe_write(int fd, const void* buf, unsigned len);

// Copies `in_fd` to `out_fd` in blocks of 16384 bytes until end of file. A read that fails is retried for
// ever, so `in_fd` must be readable. If a write fails with EPIPE, returns -1; after any other failed write,
// skips that block and continues. Returns the number of bytes copied.
int64_t safe_copyfd(int in_fd, int out_fd);
