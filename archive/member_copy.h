// Copying files into an archive.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "archive/tar.h"

// What a header promises of a file of `size` bytes: larger sizes than a member can have are cut.
int member_size(int64_t size);

// Copies `in_fd` into the archive, `size` bytes at most: neither a file that has grown since its size was
// promised nor one that cannot be read to its end may put the archive out of step. A read error counts as the
// end. A block whose write fails is not counted, and the copy goes on; when the reader has gone (EPIPE) it
// returns -1, else the number of bytes copied.
int64_t member_copy(tar_handle* t, int in_fd, int64_t size);

// Stores the whole file `in_fd` as member `name`, with zero bytes for what is missing when it shrinks
// meanwhile. No member when its size is not known. Returns 0, or 1 when the output broke.
int member_store(tar_handle* t, const char* name, int in_fd);
