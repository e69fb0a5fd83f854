// Files that change in one step.
#pragma once

#include <sys/types.h>

#include <string_view>

// Makes `text` the content of the file at `path`, with the permissions `mode`. A reader of that path finds
// the earlier file or the new one, whole: the kernel has all of the new one before it gets the name. It is
// not synced to the disk. Meanwhile it is a file without a name or, where the file system has no such thing,
// a sibling `path`.tmp-XXXXXX. A link at `path` is replaced, not what it points at. Returns 0, or -1 with
// errno set; the earlier file then stands and no sibling is left.
int replace_file(const char* path, std::string_view text, mode_t mode);
