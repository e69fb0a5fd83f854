// Writes whole debug archives, compressed or plain. The caller's descriptors 0 to 2 must be open.
#pragma once

#include "archive/archive_form.h"

// Writes the debug archive to `fd` (borrowed), as tar inside gzip. Returns after the compressor, a child
// process, has been reaped. If mmap, pipe or fork fails, writes "mmap", "pipes" or "fork" and the error to
// standard error and nothing to `fd`. Returns 0 if the whole archive was written, else the errno of the
// failure; the gzip stream then has no trailer. If nothing new is stored in a full archive for half a second,
// what has been stored by then can be decompressed from what has been written.
int stream_tgz(int fd, archive_form form = archive_form::usual);

// Writes the debug archive to `fd` (borrowed), as plain tar. Returns 0 or an errno.
int stream_tar(int fd, archive_form form = archive_form::usual);

// stream_tgz with another builder. `build` gets `context`, the write end of the compressor's pipe (borrowed)
// and the compressor's pid, and returns 0 or an errno. `flush_after_ms` is that of stream_gzip.
int stream_compressed(int fd, int (*build)(void* context, int pipe_fd, int compressor_pid), void* context,
                      int flush_after_ms = 0);
