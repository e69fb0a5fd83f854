// A description of the machine as an archive member.
#pragma once

#include <sys/statfs.h>

#include "archive/tar.h"

// Stores "system.txt": sections that begin with a line "[NAME]". What could not be read is listed in the last
// one, [errors], and in the manifest. A text above 256 KiB is cut, and its last line says so. If there is no
// memory for any text, there is no member. Returns 0, or 1 if the archive cannot be written.
int stream_system(tar_handle* t);

// The same with the files of `root` ("": this machine) and another call than statfs(2) (null: that one).
int stream_system_from(tar_handle* t, const char* root, int (*statfs_call)(const char*, struct statfs*));
