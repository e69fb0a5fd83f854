// Files that are read whole, such as those of /proc.
#pragma once

#include <stddef.h>
#include <sys/types.h>

// Reads the file at `path`, which is relative to the directory `dir_fd` (or AT_FDCWD), until `size` bytes are
// in or the file ends. Returns the number of bytes, even if an error occurred after some had been read; -1
// with errno set if none could be read.
ssize_t small_file_read(int dir_fd, const char* path, void* buf, size_t size);

// Reads the file at `path` as text: at most `size` - 1 bytes, followed by a NUL. Returns what small_file_read
// returns; the text is empty on failure.
ssize_t small_file_text(const char* path, char* text, size_t size);
