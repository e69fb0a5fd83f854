// Moving bytes between descriptors without losing any to interrupted or short transfers.
//
// The retry rules differ from routine to routine, and callers rely on exactly these. Nothing is allocated and
// nothing is printed; errno is left as the failing call set it.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Reads until `len` bytes are in or the input ends. EINTR and EAGAIN are retried at once. Returns the number
// of bytes read, or -1 on any other error, also when bytes had been read before it (they are lost).
ssize_t safe_read(int fd, void* buf, unsigned len);

// Writes all `len` bytes; EINTR and EAGAIN are retried at once. Returns `len`, or -1 on any other error, also
// after a partial write.
ssize_t safe_write(int fd, const void* buf, unsigned len);

// Copies `in_fd` to its end onto `out_fd` in blocks of 16384 bytes. A failing read is retried without end, so
// `in_fd` must be one that can be read. A block whose write fails with EPIPE ends the copy with -1; a block
// that fails otherwise is dropped whole and the copy goes on. Returns the number of bytes copied.
int64_t safe_copyfd(int in_fd, int out_fd);
