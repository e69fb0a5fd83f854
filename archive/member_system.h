// A description of the machine as an archive member.
#pragma once

#include <sys/statfs.h>

#include "archive/tar.h"

// Where the description comes from.
struct system_sources {
    const char* root;                                // holds proc and sys: "" for this machine
    int (*ask)(const char* folder, struct statfs*);  // mounts_ask
};

// Stores "system.txt": sections that begin with a line "[NAME]". What could not be read is listed in the last
// one, [errors], and in the manifest. A text above 256 KiB is cut, and its last line says so. If there is no
// memory for any text, there is no member. Returns 0, or 1 if the archive cannot be written.
int stream_system(tar_handle* t);

// The same from other sources.
int stream_system_from(tar_handle* t, const system_sources& from);
