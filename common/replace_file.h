// Replaces a file in one step.
#pragma once

#include <sys/types.h>

#include <string_view>

// Replaces the file at `path` by one with the content `text` and the permissions `mode`. A reader finds
// either the old or the new file, complete. The new file is not synced to the disk. Until it is complete it
// has no name or, if the file system needs one, the name `path`.tmp-XXXXXX. If `path` is a link, the link is
// replaced. Returns 0, or -1 with errno set; then the old file is unchanged and no temporary file remains.
int replace_file(const char* path, std::string_view text, mode_t mode);
