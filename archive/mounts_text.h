// The mounted file systems as text.
#pragma once

#include <sys/statfs.h>

#include "common/heap_text.h"

// statfs(2), but a failure is an answer too: 0 blocks of a size that is the negative errno. Always returns 0.
int mounts_ask(const char* folder, struct statfs* usage);

// Appends a line for each mount in the file `path`. Blanks, control characters and backslashes in names are
// written as in that file ("\040").
//
//   SOURCE FOLDER TYPE OPTIONS total_kib 100 used_kib 40 available_kib 50 inodes_free 9
//   SOURCE FOLDER TYPE OPTIONS Permission denied
//   SOURCE FOLDER TYPE OPTIONS not answering
//
// `ask` is mounts_ask or acts like it. It is called in another thread, so a file system that hangs takes only
// rtrace_mount_patience_ms; it is also "not answering" if there is no thread. Stops when the text is half
// full or the reader of the archive, `client_fd`, is gone. Returns 0, or the errno of the failure: EFBIG if
// the text is half full.
int mounts_text_add(heap_text* text, const char* path, int (*ask)(const char*, struct statfs*),
                    int client_fd);
