// Copying files into an archive.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "archive/tar.h"

// The size that a header promises for a file of `size` bytes: at most INT_MAX.
int member_size(int64_t size);

// Copies at most `size` bytes of `in_fd` into the archive, so that a file that has grown since its size was
// promised does not break the archive. A read error counts as end of file. A block whose write fails is not
// counted, and the copy continues. Returns the number of bytes copied, or -1 if the reader is gone (EPIPE).
int64_t member_copy(tar_handle* t, int in_fd, int64_t size);

// Stores the whole file `in_fd` as member `name`. If the file shrinks meanwhile, the rest is zero bytes. If
// its size cannot be read, there is no member. Returns 0, or 1 if the reader is gone or the zero bytes could
// not be written.
int member_store(tar_handle* t, const char* name, int in_fd);
