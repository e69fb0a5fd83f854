// Copying a file of settled size into an archive.
#pragma once

#include <stdint.h>

// Copies `in_fd` onto `out_fd`, `size` bytes at most: neither a file that has grown since its size was
// promised nor one that can't be read to its end may put the archive out of step. A read error counts as the
// end. A block whose write fails is not counted, and the copy goes on; when the reader has gone (EPIPE) it
// returns -1, else the number of bytes copied.
int64_t member_copy(int in_fd, int out_fd, int64_t size);
