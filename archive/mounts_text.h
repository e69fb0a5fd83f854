// The mounted file systems as text.
#pragma once

#include <sys/statfs.h>

#include "common/heap_text.h"

// Appends a line for each mount in the file `path`. Blanks, control characters and backslashes in names are
// written as in that file ("\040").
//
//   SOURCE FOLDER TYPE OPTIONS total_kib 100 used_kib 40 available_kib 50 inodes_free 9
//   SOURCE FOLDER TYPE OPTIONS not answering
//
// Asks with `statfs_call` (null: statfs(2)) in another thread: a file system that hangs takes only
// rtrace_mount_patience_ms. One that fails is "not answering" too, as are all if there is no thread. Stops
// when the text is half full or the reader of the archive, `client_fd`, is gone. Returns 0, or the errno of
// the failure: EFBIG if the text is half full.
int mounts_text_add(heap_text* text, const char* path, int (*statfs_call)(const char*, struct statfs*),
                    int client_fd);
